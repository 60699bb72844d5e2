#include "storage/QueryResult.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

QueryResult::QueryResult(Statement& st) : statement(st.get_compiled_statement()) {
  if (statement == nullptr) {
    throw sqlite_exception("Invalid statement object received.");
  }
  last_status = sqlite3_step(statement);
  if (last_status == SQLITE_ERROR) {
    throw sqlite_exception("sqlite query execution failed.");
  }
  has_pending_record = (last_status == SQLITE_ROW);
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
  if (last_status == SQLITE_DONE) {
    return false;
  }
  last_status = sqlite3_step(statement);
  if (last_status != SQLITE_ROW) {
    return false;
  }
  read_current_step_into(out);
  return true;
}

void QueryResult::read_current_step_into(Row& out) const {
  const int count = sqlite3_data_count(statement);
  for (int i = 0; i < count; ++i) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
    out[sqlite3_column_name(statement, i)] = Value(std::string(text != nullptr ? text : ""));
  }
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
