#include "schema/SchemaAudit.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <utility>
#include <tuple>

#include "schema/AnomalySchema.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

namespace {

constexpr const char* kSchemaCode =
    "SELECT type, name, sql, tbl_name FROM sqlite_master WHERE type IN ('trigger', 'view') ORDER BY type, name";
constexpr const char* kTables = "SELECT name FROM sqlite_master WHERE type = 'table'";

// type, name and the text with each run of blanks made one space; then the
// table the object is on, which the text already names.
using Definition = std::tuple<std::string, std::string, std::string, std::string>;

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
    definitions.emplace_back(std::string(row["type"]), std::string(row["name"]), collapse_blanks(row["sql"]),
                             std::string(row["tbl_name"]));
  }
  return definitions;
}

// SQLite compares table names without regard to ASCII letter case.
std::string folded(std::string name) {
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return name;
}

// What the shipped schema defines (its code, and its tables by folded
// name), read from a database built from it.
struct Shipped {
  std::set<Definition> definitions;
  std::set<std::string> tables;
};

const Shipped& shipped() {
  static const Shipped schema = [] {
    DBAccess scratch(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY);
    scratch.execute_query(anomaly_schema::anomaly_db_sql());
    const std::vector<Definition> found = definitions_in(scratch);
    Shipped built{{found.begin(), found.end()}, {}};
    Rows rows;
    scratch.read_data(kTables, rows);
    for (auto& row : rows) built.tables.insert(folded(row["name"]));
    return built;
  }();
  return schema;
}

bool is_detector_table(const std::string& name) { return shipped().tables.count(folded(name)) != 0; }

int note_table_read(void* tables, int action, const char* table, const char*, const char*, const char*) {
  if (action == SQLITE_READ && table != nullptr) static_cast<std::set<std::string>*>(tables)->insert(folded(table));
  return SQLITE_OK;
}

// Whether selecting from the view reads a detector table, as SQLite's
// authorizer sees the tables behind it (other views included) while it
// prepares the statement; nothing is run.
bool view_reads_detector_table(DBAccess& db, const std::string& view) {
  std::set<std::string> read;
  sqlite3_set_authorizer(db.handle, note_table_read, &read);
  std::string quoted;
  for (const char c : view) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  sqlite3_stmt* statement = nullptr;
  const int prepared = sqlite3_prepare_v2(db.handle, ("SELECT * FROM main.\"" + quoted + "\"").c_str(), -1,
                                          &statement, nullptr);
  sqlite3_finalize(statement);
  sqlite3_set_authorizer(db.handle, nullptr, nullptr);
  if (prepared != SQLITE_OK) return true;
  return std::any_of(read.begin(), read.end(), is_detector_table);
}

}  // namespace

std::vector<SchemaObject> unknown_schema_objects(DBAccess& db) {
  std::vector<SchemaObject> unknown;
  for (auto& [type, name, sql, table] : definitions_in(db)) {
    if (shipped().definitions.count({type, name, sql, table}) == 0) unknown.push_back({type, name, table});
  }
  return unknown;
}

std::vector<SchemaObject> unknown_code_on_detector_tables(DBAccess& db) {
  std::vector<SchemaObject> on_detector_tables;
  for (SchemaObject& object : unknown_schema_objects(db)) {
    const bool sits = object.type == "trigger" ? is_detector_table(object.table)
                                               : view_reads_detector_table(db, object.name);
    if (sits) on_detector_tables.push_back(std::move(object));
  }
  return on_detector_tables;
}
