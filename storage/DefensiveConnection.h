// DefensiveConnection: every connection the programs open treats the
// database file as untrusted input. Whoever can write the file must not be
// able to run more than plain SQL through the schema it carries: SQLite's
// defensive mode refuses writes that could corrupt the file on purpose
// (writable_schema, journal_mode=OFF, ...), and with trusted_schema off the
// triggers and views in the file may call only SQLite's innocuous functions.
#pragma once

#include <sqlite3.h>

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

// Applies both settings to an open connection. Runs no SQL statement.
void make_defensive(sqlite3* handle);

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
