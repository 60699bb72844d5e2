// tsanomalyctl explain: why one job of DATA_TO_PROCESS is judged as it is
// (or would be, at the next pass), step by step, without changing anything.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kExplainSyntax;
extern const std::string kExplainHelp;
int run_explain(int argc, char** argv);
