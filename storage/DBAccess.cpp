#include "storage/DBAccess.h"

#include "storage/DefensiveConnection.h"
#include "storage/QueryResult.h"
#include "storage/Statement.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

namespace {

// A column name appears once per Row: when a result repeats a name, the first
// cell is kept. A NULL cell becomes an empty Value rather than a crash.
int append_row(void* context, int count, char** cells, char** names) {
  Rows& rows = *static_cast<Rows*>(context);
  Row row;
  for (int i = 0; i < count; ++i) {
    row.emplace(names[i], Value(std::string(cells[i] != nullptr ? cells[i] : "")));
  }
  rows.push_back(std::move(row));
  return 0;
}

}  // namespace

DBAccess::DBAccess(const std::string& path, int flags) : open_flags(flags), database_path(path) {
  open_database();
}

DBAccess::~DBAccess() { close_database(); }

void DBAccess::open_database() {
  if (sqlite3_open_v2(database_path.c_str(), &handle, open_flags, nullptr) != SQLITE_OK) {
    // The handle SQLite allocates even for a failed open is released here so
    // that a failed constructor leaks nothing.
    sqlite3_close(handle);
    handle = nullptr;
    throw sqlite_exception("Could not open database " + database_path);
  }
  // The file may have been written by anyone who can write its folder: its
  // triggers and views get no more than plain SQL.
  make_defensive(handle);
}

// The handle is cleared so that an explicit close followed by the destructor
// cannot close the same connection twice.
void DBAccess::close_database() {
  sqlite3_close(handle);
  handle = nullptr;
}

void DBAccess::set_busy_timeout(int milliseconds) { sqlite3_busy_timeout(handle, milliseconds); }

void DBAccess::begin_transaction() {
  exec_or_throw("BEGIN TRANSACTION;", "BEGIN TRANSACTION execution failed.");
}

void DBAccess::commit_transaction() {
  exec_or_throw("END TRANSACTION;", "END TRANSACTION execution failed.");
}

void DBAccess::rollback_transaction() {
  exec_or_throw("ROLLBACK TRANSACTION;", "ROLLBACK TRANSACTION execution failed.");
}

bool DBAccess::is_auto_commit_on() { throw sqlite_exception("Not implemented"); }

void DBAccess::execute_query(const std::string& sql) {
  exec_or_throw(sql, "Query execution failed for  " + sql);
}

void DBAccess::create_table(const std::string& sql) {
  exec_or_throw(sql, "Failed to create table with query " + sql);
}

void DBAccess::read_data(const std::string& sql, Rows& rows) {
  exec_or_throw(sql, "Query execution failed for  " + sql, append_row, &rows);
}

void DBAccess::execute_query_prepared(Statement& st) {
  QueryResult result(st);
  if (result.get_last_status() != SQLITE_DONE) {
    throw sqlite_exception("sqlite query execution failed.");
  }
}

void DBAccess::read_data_prepared(Statement& st, Rows& rows) {
  QueryResult result(st);
  Row row;
  while (result.get_next_record(row)) {
    rows.push_back(std::move(row));
    row.clear();
  }
}

void DBAccess::exec_or_throw(const std::string& sql, const std::string& failure_message,
                             int (*callback)(void*, int, char**, char**), void* context) {
  char* errmsg = nullptr;
  if (sqlite3_exec(handle, sql.c_str(), callback, context, &errmsg) == SQLITE_OK) {
    return;
  }
  // SQLite's text is copied and released before the exception is built, so
  // nothing SQLite owns is in flight while we throw.
  std::string inner(errmsg != nullptr ? errmsg : "");
  sqlite3_free(errmsg);
  throw sqlite_exception(failure_message, inner);
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
