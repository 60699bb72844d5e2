// DBAccess: owns one SQLite connection for its whole life and runs plain SQL
// and prepared Statements on it. Every failure is thrown as sqlite_exception;
// nothing here logs.
#pragma once

#include <sqlite3.h>

#include <string>

#include "storage/Exception.h"
#include "storage/RecordCursor.h"
#include "storage/Value.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class DBAccess {
 public:
  DBAccess(const std::string& path, int flags);
  ~DBAccess();
  DBAccess(const DBAccess&) = delete;
  DBAccess& operator=(const DBAccess&) = delete;

  void open_database();
  void close_database();
  // How long a statement waits for another connection's lock before it
  // fails with SQLITE_BUSY; 0 (SQLite's default) fails at once.
  void set_busy_timeout(int milliseconds);

  void begin_transaction();
  void commit_transaction();
  void rollback_transaction();
  bool is_auto_commit_on();

  void execute_query(const std::string& sql);
  void create_table(const std::string& sql);
  // Appends one Row per result record to rows; earlier contents are kept.
  void read_data(const std::string& sql, Rows& rows);

  // Runs st once; it must finish (SQLITE_DONE) without yielding a record.
  void execute_query_prepared(Statement& st);
  // Runs st and appends every record it yields to rows.
  void read_data_prepared(Statement& st, Rows& rows);
  // Runs st exactly as read_data_prepared does and hands each record that
  // it would append, in the same order, to visit(const RecordCursor&) while
  // the cursor stands on it: for readers that need a few cells of many
  // records and no Row per record.
  template <typename Visit>
  void visit_records_prepared(Statement& st, Visit&& visit) {
    RecordCursor cursor(st);
    if (cursor.has_record()) {
      visit(static_cast<const RecordCursor&>(cursor));
    }
    while (cursor.advance()) {
      visit(static_cast<const RecordCursor&>(cursor));
    }
  }

  sqlite3* handle = nullptr;

 private:
  void exec_or_throw(const std::string& sql, const std::string& failure_message,
                     int (*callback)(void*, int, char**, char**) = nullptr, void* context = nullptr);

  int open_flags;
  std::string database_path;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
