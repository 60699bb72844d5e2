// SchemaAudit: which triggers and views a database file carries beyond the
// ones the detector's own schema (anomaly_db.sql) defines. Schema code runs
// with the rights of whoever opens the file, so the operator is told about
// any the detector did not ship; nothing is changed or removed.
#pragma once

#include <string>
#include <vector>

#include "storage/DBAccess.h"

struct SchemaObject {
  std::string type;  // "trigger" or "view"
  std::string name;
};

// The triggers and views of db's main database that the shipped schema does
// not define under the same name with the same text (blank runs aside),
// ordered by type and name. Throws sqlite_exception when the file cannot be
// read.
std::vector<SchemaObject> unknown_schema_objects(
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);
