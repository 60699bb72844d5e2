// SchemaAudit: which triggers and views a database file carries beyond the
// ones the detector's own schema (anomaly_db.sql) defines. Schema code runs
// with the rights of whoever opens the file, so the operator is told about
// any the detector did not ship; nothing is changed or removed.
#pragma once

#include <string>
#include <vector>

#include "storage/DBAccess.h"

struct SchemaObject {
  std::string type;   // "trigger" or "view"
  std::string name;
  std::string table;  // the table a trigger fires on; a view's own name
};

// The triggers and views of db's main database that the shipped schema does
// not define under the same name with the same text (blank runs aside),
// ordered by type and name. Throws sqlite_exception when the file cannot be
// read.
std::vector<SchemaObject> unknown_schema_objects(
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);

// Of those, the ones that sit on the detector's own tables: a trigger firing
// on one of them (a write by any tool would run it: it could spin holding
// the write lock, or delete what the write records), and a view reading one
// (or one SQLite will not even prepare, which counts as reading them). The
// tools write nothing while any is there. Throws like unknown_schema_objects.
std::vector<SchemaObject> unknown_code_on_detector_tables(
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);
