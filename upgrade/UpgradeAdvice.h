// UpgradeAdvice: the command line that mends a schema finding, as status
// and upgrade print it for an operator to paste. Pure text; never fails.
#pragma once

#include <string>

#include "upgrade/SchemaDiff.h"

// The upgrade command line an operator runs for a finding of the database at
// path: with --apply for what it can create, --apply --wal for the journal,
// the bare comparison for what it leaves alone. path is quoted for a shell.
std::string upgrade_command(const std::string& path, SchemaFinding::Remedy remedy);
