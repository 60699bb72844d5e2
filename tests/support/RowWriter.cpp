#include "tests/support/RowWriter.h"

#include "storage/Statement.h"

namespace tsanomaly_test {

void RowWriter::insert(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db, const std::string& table,
                       const Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row& row) {
  std::string columns, marks;
  for (const auto& [column, value] : row) {
    columns += (columns.empty() ? "" : ", ") + column;
    marks += marks.empty() ? "?" : ", ?";
  }
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement st(
      db.handle, "INSERT INTO " + table + " (" + columns + ") VALUES (" + marks + ")");
  int index = 1;
  for (const auto& [column, value] : row) st.bind(index++, value.text());
  db.execute_query_prepared(st);
}

}  // namespace tsanomaly_test
