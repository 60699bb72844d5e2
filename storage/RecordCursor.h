// RecordCursor: one execution of a Statement, stepped record by record, with
// the cells of the current record read in place instead of copied into a
// Row. It steps exactly as QueryResult does (QueryResult is built on it):
// construction performs the first step and throws only on SQLITE_ERROR;
// advance() never steps again once SQLITE_DONE was seen, and a step that
// yields anything but a record ends the records quietly.
#pragma once

#include <sqlite3.h>

#include "storage/Exception.h"
#include "storage/Statement.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class RecordCursor {
 public:
  explicit RecordCursor(Statement& st);
  RecordCursor(const RecordCursor&) = delete;
  RecordCursor& operator=(const RecordCursor&) = delete;

  // True while the latest step yielded a record.
  bool has_record() const { return last_status == SQLITE_ROW; }
  // Steps to the next record unless the execution is done; true when it
  // yielded one.
  bool advance();
  int get_last_status() const { return last_status; }

  // The current record: its number of cells, each cell's column name, and
  // its text as the Value built from it holds it: a NULL cell reads as "",
  // and the text ends at its first NUL character.
  int cell_count() const { return sqlite3_data_count(statement); }
  const char* column_name(int i) const { return sqlite3_column_name(statement, i); }
  const char* text(int i) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
    return text != nullptr ? text : "";
  }

 private:
  sqlite3_stmt* statement;
  int last_status = SQLITE_OK;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
