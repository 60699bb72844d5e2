#include "storage/RecordCursor.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

RecordCursor::RecordCursor(Statement& st) : statement(st.get_compiled_statement()) {
  if (statement == nullptr) {
    throw sqlite_exception("Invalid statement object received.");
  }
  last_status = sqlite3_step(statement);
  if (last_status == SQLITE_ERROR) {
    throw sqlite_exception("sqlite query execution failed.");
  }
}

bool RecordCursor::advance() {
  if (last_status == SQLITE_DONE) {
    return false;
  }
  last_status = sqlite3_step(statement);
  return last_status == SQLITE_ROW;
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
