#include "schema/SchemaAudit.h"

#include <sqlite3.h>

#include <set>
#include <tuple>

#include "schema/AnomalySchema.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

namespace {

constexpr const char* kSchemaCode =
    "SELECT type, name, sql FROM sqlite_master WHERE type IN ('trigger', 'view') ORDER BY type, name";

// type, name and the text with each run of blanks made one space.
using Definition = std::tuple<std::string, std::string, std::string>;

std::string collapse_blanks(const std::string& sql) {
  std::string out;
  bool blank = false;
  for (const char c : sql) {
    const bool is_blank = c == ' ' || c == '\t' || c == '\n' || c == '\r';
    if (is_blank && !blank) out += ' ';
    if (!is_blank) out += c;
    blank = is_blank;
  }
  return out;
}

std::vector<Definition> definitions_in(DBAccess& db) {
  Rows rows;
  db.read_data(kSchemaCode, rows);
  std::vector<Definition> definitions;
  for (auto& row : rows) {
    definitions.emplace_back(std::string(row["type"]), std::string(row["name"]), collapse_blanks(row["sql"]));
  }
  return definitions;
}

// What the shipped schema defines, read from a database built from it.
const std::set<Definition>& shipped_definitions() {
  static const std::set<Definition> shipped = [] {
    DBAccess scratch(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY);
    scratch.execute_query(anomaly_schema::anomaly_db_sql());
    const std::vector<Definition> found = definitions_in(scratch);
    return std::set<Definition>(found.begin(), found.end());
  }();
  return shipped;
}

}  // namespace

std::vector<SchemaObject> unknown_schema_objects(DBAccess& db) {
  std::vector<SchemaObject> unknown;
  for (auto& [type, name, sql] : definitions_in(db)) {
    if (shipped_definitions().count({type, name, sql}) == 0) unknown.push_back({type, name});
  }
  return unknown;
}
