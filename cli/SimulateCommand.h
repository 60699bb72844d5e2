// tsanomalyctl simulate: fills a database with synthetic backup history and
// pending jobs, some made anomalous on purpose, so operators can try the
// detector and we can benchmark it. Same seed and options, same data.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kSimulateSyntax;
extern const std::string kSimulateHelp;

// Exit status 0 when filled, 1 when the database cannot be filled (it already
// holds jobs, or storage fails), 2 for bad arguments.
int run_simulate(int argc, char** argv);
