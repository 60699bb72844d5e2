// tsanomalyctl upgrade: compares a database the backup product made with the
// detector's schema and, when asked, adds the missing indexes and triggers in
// one transaction and switches the journal to WAL. Never rewrites or drops
// a row, a table or anyone else's index.
#pragma once

#include <string>

#include "tools/SchemaDiff.h"

extern const char* const kUpgradeHelp;
int run_upgrade(int argc, char** argv);

// The upgrade command line an operator runs for a finding of the database at
// path: with --apply for what it can create, --apply --wal for the journal,
// the bare comparison for what it leaves alone. path is quoted for a shell.
std::string upgrade_command(const std::string& path, SchemaFinding::Remedy remedy);
