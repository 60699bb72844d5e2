// tsanomalyctl anomalies: the reported anomalies, newest first, as an
// aligned table or as JSON lines.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kAnomaliesSyntax;
extern const std::string kAnomaliesHelp;
int run_anomalies(int argc, char** argv);
