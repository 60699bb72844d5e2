// DetectorDatabase: how the operator's side opens a detector database, and
// what counts as one: a readable SQLite file holding ANOMALY_DATA. Each call
// returns a connection of its own (the caller owns it), waiting for the
// detector's lock as long as the detector does, each statement held to the
// operator's StatementBudget (a deadline, size limits). Throws std::runtime_error
// with a message for the operator when the file is not such a database.
#pragma once

#include <memory>
#include <string>

#include "storage/DBAccess.h"

namespace detector_database {

using Connection = std::unique_ptr<Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess>;

// A read-only connection.
Connection open_for_reading(const std::string& path);
// A read-write connection, for a verdict.
Connection open_for_verdict(const std::string& path);

}  // namespace detector_database
