// QueryResult: a cursor over one execution of a Statement. Construction
// performs the first step (throwing only on SQLITE_ERROR); records are then
// handed out one by one as Rows, a NULL cell as an empty Value. A step that
// fails after the first ends the iteration quietly; get_last_status() tells.
#pragma once

#include <sqlite3.h>

#include "storage/Exception.h"
#include "storage/RecordCursor.h"
#include "storage/Statement.h"
#include "storage/Value.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class QueryResult {
 public:
  explicit QueryResult(Statement& st);
  QueryResult(const QueryResult&) = delete;
  QueryResult& operator=(const QueryResult&) = delete;

  // Fills out with the next record and returns true, or returns false when
  // the execution has no more records. Columns are assigned into out, so a
  // repeated column name keeps the last cell.
  bool get_next_record(Row& out);
  int get_last_status() const { return cursor.get_last_status(); }

 private:
  void read_current_step_into(Row& out) const;

  RecordCursor cursor;
  Row current_record;
  bool has_pending_record = false;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
