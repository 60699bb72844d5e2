#include "operator/DetectorDatabase.h"

#include <sqlite3.h>
#include <unistd.h>

#include <stdexcept>

#include "contract/BusyTimeout.h"
#include "operator/StatementBudget.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

namespace {

detector_database::Connection open_checked(const std::string& path, int flags) {
  if (access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error("cannot read database '" + path + "'");
  }
  auto db = std::make_unique<DBAccess>(path, flags);
  db->set_busy_timeout(kBusyTimeoutMs);
  statement_budget::apply(db->handle);
  Rows tables;
  try {
    db->read_data("SELECT name FROM sqlite_master WHERE type = 'table' AND name = 'ANOMALY_DATA'", tables);
  } catch (const std::exception&) {
    throw std::runtime_error("'" + path + "' is not an SQLite database");
  }
  if (tables.empty()) {
    throw std::runtime_error("'" + path + "' has no ANOMALY_DATA table; create it with 'tsanomalyctl init'");
  }
  return db;
}

}  // namespace

namespace detector_database {

Connection open_for_reading(const std::string& path) { return open_checked(path, SQLITE_OPEN_READONLY); }

Connection open_for_verdict(const std::string& path) { return open_checked(path, SQLITE_OPEN_READWRITE); }

}  // namespace detector_database
