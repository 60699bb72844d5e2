// Statement: one compiled SQL statement with 1-based positional bindings,
// prepared on construction and finalized on destruction. It is executed
// through DBAccess (which builds a QueryResult over it) and is not copyable,
// so a compiled statement is finalized exactly once.
#pragma once

#include <sqlite3.h>

#include <string>

#include "storage/Exception.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* get_compiled_statement() const { return compiled_statement; }
  void reset();

  // Text is copied by SQLite, so the caller's string may go away at once; it
  // is bound up to its first NUL character.
  void bind(int index, const std::string& value);
  void bind(int index, double value);
  void bind(int index, int value);

 private:
  static void check_bind(int result);

  sqlite3* db;
  sqlite3_stmt* compiled_statement = nullptr;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
