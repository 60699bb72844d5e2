#include "storage/StatementCache.h"

#include "storage/Statement.h"

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

sqlite3_stmt* StatementCache::take(const char* sql) {
  for (auto& [text, compiled] : kept) {
    if (text != sql || compiled == nullptr) {
      continue;
    }
    sqlite3_stmt* taken = std::exchange(compiled, nullptr);
    if (!sqlite3_expired(taken)) {
      return taken;
    }
    sqlite3_finalize(taken);
    break;
  }
  return Statement::compile(db, sql);
}

void StatementCache::give_back(const char* sql, sqlite3_stmt* compiled, unsigned long lent_in) {
  // With the legacy compile, reset reports whether the last execution failed.
  if (sqlite3_reset(compiled) != SQLITE_OK) {
    sqlite3_finalize(compiled);
    clear();
    ++epoch;
    return;
  }
  if (lent_in != epoch) {
    sqlite3_finalize(compiled);
    return;
  }
  sqlite3_clear_bindings(compiled);
  for (auto& [text, slot] : kept) {
    if (text == sql) {
      sqlite3_finalize(std::exchange(slot, compiled));
      return;
    }
  }
  kept.emplace_back(sql, compiled);
}

void StatementCache::clear() {
  for (auto& entry : kept) {
    sqlite3_finalize(entry.second);
  }
  kept.clear();
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
