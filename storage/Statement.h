// Statement: one compiled SQL statement with 1-based positional bindings,
// prepared on construction and finalized on destruction (or, built on a
// StatementCache, borrowed from it and given back). It is executed through
// DBAccess (which builds a QueryResult over it) and is not copyable, so a
// compiled statement is finalized exactly once.
#pragma once

#include <sqlite3.h>

#include <string>

#include "storage/Exception.h"
#include "storage/StatementCache.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql);
  // Borrows the statement that cache keeps for sql, or one compiled for it
  // as above; the destructor gives it back to the cache, which must outlive
  // the Statement.
  Statement(StatementCache& cache, const char* sql);
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
  friend class StatementCache;

  // Compiles the first statement of sql on db (the legacy interface); throws
  // what the constructor throws.
  static sqlite3_stmt* compile(sqlite3* db, const std::string& sql);
  static void check_bind(int result);

  sqlite3* db;
  sqlite3_stmt* compiled_statement = nullptr;
  StatementCache* cache = nullptr;
  const char* cached_sql = nullptr;
  unsigned long cache_epoch = 0;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
