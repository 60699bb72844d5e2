#include "storage/Statement.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

Statement::Statement(sqlite3* connection, const std::string& sql)
    : db(connection), compiled_statement(compile(connection, sql)) {}

Statement::Statement(StatementCache& statements, const char* sql)
    : db(statements.db),
      compiled_statement(statements.take(sql)),
      cache(&statements),
      cached_sql(sql),
      cache_epoch(statements.epoch) {}

Statement::~Statement() {
  if (cache != nullptr) {
    cache->give_back(cached_sql, compiled_statement, cache_epoch);
  } else {
    sqlite3_finalize(compiled_statement);
  }
}

sqlite3_stmt* Statement::compile(sqlite3* db, const std::string& sql) {
  if (db == nullptr) {
    throw sqlite_exception("Invalid database object received.");
  }
  // Only the first statement of the text is compiled: no tail is asked for.
  sqlite3_stmt* compiled = nullptr;
  if (sqlite3_prepare(db, sql.c_str(), -1, &compiled, nullptr) != SQLITE_OK) {
    throw sqlite_exception("sqlite prepare statement failed for query - " + sql);
  }
  return compiled;
}

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
