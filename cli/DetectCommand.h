// tsanomalyctl detect: one detection pass now, with the service's own
// options, debug log and service object; the start-up banner is not printed.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kDetectSyntax;
extern const std::string kDetectHelp;

// Exit status 0 after the pass, 1 when the debug log cannot be opened.
int run_detect(int argc, char** argv);
