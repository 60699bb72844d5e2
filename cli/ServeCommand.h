// tsanomalyctl serve: the operator console, a long-running web server on
// the detector database. Stops cleanly on SIGTERM or SIGINT.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kServeSyntax;
extern const std::string kServeHelp;
int run_serve(int argc, char** argv);
