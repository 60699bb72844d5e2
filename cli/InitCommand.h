// tsanomalyctl init: creates a detector database from the schema compiled
// into the tool, so it works from any folder.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kInitSyntax;
extern const std::string kInitHelp;
int run_init(int argc, char** argv);
