// tsanomalyctl upgrade: compares a database the backup product made with the
// detector's schema and, when asked, adds the missing indexes and triggers in
// one transaction and switches the journal to WAL. Never rewrites or drops
// a row, a table or anyone else's index.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kUpgradeSyntax;
extern const std::string kUpgradeHelp;
int run_upgrade(int argc, char** argv);
