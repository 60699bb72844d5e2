// tsanomalyctl status: one screen on the state of a detector database:
// queue, history, models and recent anomalies.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kStatusSyntax;
extern const std::string kStatusHelp;
int run_status(int argc, char** argv);
