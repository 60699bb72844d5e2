// StatementCache: compiled statements of one connection kept for reuse, one
// per SQL text, so that a text run over and over is compiled once. A
// Statement built on the cache borrows the statement kept for its text
// (compiled, when none is kept, exactly as a Statement compiles its own) and
// gives it back reset, its bindings cleared, instead of finalizing it.
//
// A kept statement runs exactly as a freshly compiled one would, as long as
// no execution on the connection has failed since it was compiled: a schema
// change made by another connection shows as the failure of the next
// statement run on this one, kept or fresh alike, and only after that
// failure does a fresh compile differ. So a statement given back after a
// failed execution finalizes every kept statement, and the texts are
// compiled afresh from then on; one that SQLite has expired is compiled
// afresh as well. For that to hold, while the cache keeps statements every
// statement run on the connection must be built on the cache, and none may
// change the schema (a kept statement is not told of that). The cache must
// be destroyed before its connection is closed.
#pragma once

#include <sqlite3.h>

#include <utility>
#include <vector>

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class Statement;

class StatementCache {
 public:
  explicit StatementCache(sqlite3* db) : db(db) {}
  ~StatementCache() { clear(); }
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;

 private:
  friend class Statement;

  // The kept statement for sql (texts are told apart by address: a text
  // given at another address is compiled on its own), or a fresh one; throws
  // as compiling a Statement does.
  sqlite3_stmt* take(const char* sql);
  // lent_in is the epoch current when the statement was taken: one taken
  // before a failure is not kept, even if its own execution went well.
  void give_back(const char* sql, sqlite3_stmt* compiled, unsigned long lent_in);
  void clear();

  sqlite3* db;
  std::vector<std::pair<const char*, sqlite3_stmt*>> kept;
  unsigned long epoch = 0;  // failures seen so far
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
