// tsanomalyctl report: writes one self-contained HTML page about the
// anomalies in a detector database, with a chart of the workload's history
// for every feature that left its usual range.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kReportSyntax;
extern const std::string kReportHelp;

// Exit status 0 when the page was written, 2 for a usage error, 1 when the
// database cannot be read or the page cannot be written.
int run_report(int argc, char** argv);
