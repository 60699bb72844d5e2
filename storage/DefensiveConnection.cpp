#include "storage/DefensiveConnection.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

void make_defensive(sqlite3* handle) {
  sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
