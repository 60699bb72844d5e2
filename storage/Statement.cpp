#include "storage/Statement.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

Statement::Statement(sqlite3* connection, const std::string& sql) : db(connection) {
  if (db == nullptr) {
    throw sqlite_exception("Invalid database object received.");
  }
  // Only the first statement of the text is compiled: no tail is asked for.
  if (sqlite3_prepare(db, sql.c_str(), -1, &compiled_statement, nullptr) != SQLITE_OK) {
    throw sqlite_exception("sqlite prepare statement failed for query - " + sql);
  }
}

Statement::~Statement() { sqlite3_finalize(compiled_statement); }

void Statement::reset() { sqlite3_reset(compiled_statement); }

void Statement::bind(int index, const std::string& value) {
  check_bind(sqlite3_bind_text(compiled_statement, index, value.c_str(), -1, SQLITE_TRANSIENT));
}

void Statement::bind(int index, double value) {
  check_bind(sqlite3_bind_double(compiled_statement, index, value));
}

void Statement::bind(int index, int value) {
  check_bind(sqlite3_bind_int(compiled_statement, index, value));
}

void Statement::check_bind(int result) {
  if (result != SQLITE_OK) {
    throw sqlite_exception("sqlite bind failed.");
  }
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
