// The version of the database schema that anomaly_db.sql and alert_db.sql
// create. Raise it with every change to what they create, so that
// `--version` tells an operator which schema a release expects.
#pragma once

namespace anomaly_schema {

constexpr int kSchemaVersion = 1;

}  // namespace anomaly_schema
