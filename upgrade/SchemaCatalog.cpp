#include "upgrade/SchemaCatalog.h"

#include "schema/SchemaCatalogSql.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using namespace schema_catalog_sql;

namespace {

Rows read_for(DBAccess& db, const char* sql, const std::string& name) {
  Statement st(db.handle, sql);
  st.bind(1, name);
  Rows rows;
  db.read_data_prepared(st, rows);
  return rows;
}

std::string text(Row& row, const char* column) { return row[column].text(); }

IndexDefinition read_index(DBAccess& db, const std::string& table, Row& listed) {
  IndexDefinition index;
  index.name = text(listed, "name");
  index.table = table;
  index.unique = static_cast<int>(listed["is_unique"]) != 0;
  index.partial = static_cast<int>(listed["partial"]) != 0;
  index.create_sql = text(listed, "sql");
  for (Row& key : read_for(db, kIndexKeys, index.name)) {
    index.keys.push_back(upper_name(text(key, "name")) + " " + upper_name(text(key, "coll")));
  }
  return index;
}

}  // namespace

std::string upper_name(std::string name) {
  for (char& c : name) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return name;
}

std::vector<std::string> SchemaCatalog::tables_of(DBAccess& db) {
  Rows rows;
  db.read_data(kTables, rows);
  std::vector<std::string> tables;
  for (Row& row : rows) tables.push_back(upper_name(text(row, "name")));
  return tables;
}

SchemaCatalog SchemaCatalog::read(DBAccess& db, const std::vector<std::string>& tables) {
  SchemaCatalog catalog;
  std::set<std::string> wanted;
  for (const std::string& table : tables) {
    Rows columns = read_for(db, kTableColumns, table);
    if (columns.empty()) continue;
    wanted.insert(upper_name(table));
    auto& names = catalog.columns[upper_name(table)];
    for (Row& column : columns) names.push_back(upper_name(text(column, "name")));
    for (Row& listed : read_for(db, kTableIndexes, table)) {
      catalog.indexes.push_back(read_index(db, upper_name(table), listed));
    }
  }
  Rows rows;
  db.read_data(kTriggers, rows);
  for (Row& row : rows) {
    TriggerDefinition trigger{upper_name(text(row, "name")), upper_name(text(row, "tbl_name")), text(row, "sql")};
    if (wanted.count(trigger.table) != 0) catalog.triggers.push_back(trigger);
  }
  rows.clear();
  db.read_data(kObjectNames, rows);
  for (Row& row : rows) catalog.names.insert(upper_name(text(row, "name")));
  rows.clear();
  db.read_data(kJournalMode, rows);
  catalog.journal_mode = rows.empty() ? "" : text(rows[0], "journal_mode");
  return catalog;
}
