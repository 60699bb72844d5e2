// The database DDL (schema/anomaly_db.sql for the detector's tables,
// schema/alert_db.sql for the alert process's) compiled into the program, so
// the tools and tests can build a database from any working folder.
#pragma once

namespace anomaly_schema {

// The whole text of anomaly_db.sql, ready for sqlite3_exec.
const char* anomaly_db_sql();
// The whole text of alert_db.sql: the alert process's tables, none of the
// detector's.
const char* alert_db_sql();

}  // namespace anomaly_schema
