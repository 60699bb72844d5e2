// SchemaCatalog: what one SQLite database defines for a set of tables: their
// columns, their indexes (by definition: key columns, collation, uniqueness)
// and triggers, every name in its schema and its journal mode. Reading
// writes nothing; a failure is thrown as the storage layer's sqlite_exception.
// Names are kept in upper case, as SQLite compares them without case.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "storage/DBAccess.h"

struct IndexDefinition {
  std::string name;
  std::string table;
  std::vector<std::string> keys;  // "COLUMN COLLATION"; an expression is " COLLATION"
  bool unique = false;
  bool partial = false;
  std::string create_sql;  // empty for an index a UNIQUE or PRIMARY KEY constraint made
};

struct TriggerDefinition {
  std::string name;
  std::string table;
  std::string create_sql;
};

struct SchemaCatalog {
  // The tables the database itself defines, in the order they were created.
  static std::vector<std::string> tables_of(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);
  // Reads the definitions that concern tables; a table the database lacks
  // has no entry in columns.
  static SchemaCatalog read(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db,
                            const std::vector<std::string>& tables);

  std::map<std::string, std::vector<std::string>> columns;  // by table, in column order
  std::vector<IndexDefinition> indexes;
  std::vector<TriggerDefinition> triggers;
  std::set<std::string> names;  // every index, table, trigger and view
  std::string journal_mode;     // as PRAGMA journal_mode reports it: "wal", "delete", ...
};

// ASCII upper case: SQLite folds only ASCII letters in names.
std::string upper_name(std::string name);
