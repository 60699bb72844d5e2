#include "storage/QueryResult.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

QueryResult::QueryResult(Statement& st) : cursor(st) {
  has_pending_record = cursor.has_record();
  if (has_pending_record) {
    read_current_step_into(current_record);
  }
}

bool QueryResult::get_next_record(Row& out) {
  if (has_pending_record) {
    has_pending_record = false;
    out = std::move(current_record);
    return true;
  }
  if (!cursor.advance()) {
    return false;
  }
  read_current_step_into(out);
  return true;
}

void QueryResult::read_current_step_into(Row& out) const {
  const int count = cursor.cell_count();
  for (int i = 0; i < count; ++i) {
    out[cursor.column_name(i)] = Value(std::string(cursor.text(i)));
  }
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
