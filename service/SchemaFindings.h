// SchemaFindings: the start-up warning about schema code the detector did
// not ship. Each trigger or view in the database that anomaly_db.sql does
// not define is logged once, by name, among the start-up lines; detection
// goes on as usual (the operator decides what to do with it).
#pragma once

#include "storage/DBAccess.h"

// Logs one level-4 line under the program's category per unknown trigger or
// view. A database that cannot be read logs nothing here: the pass reports
// its own failures.
void log_unknown_schema_objects(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);
