#include "storage/StatementCache.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;
using tsanomaly_test::TempDir;

namespace {

constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
const char* const kSelectT = "SELECT k, i FROM t ORDER BY k";
const char* const kSelectU = "SELECT v FROM u";
const char* const kInsertT = "INSERT INTO t VALUES (?, ?)";
const char* const kSelectAllU = "SELECT * FROM u";

int allow_everything(void*, int, const char*, const char*, const char*, const char*) { return SQLITE_OK; }

class StatementCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db.execute_query(
        "PRAGMA journal_mode = WAL; CREATE TABLE t(k TEXT UNIQUE, i INTEGER); CREATE TABLE u(v INTEGER);"
        "INSERT INTO t VALUES ('a', 1); INSERT INTO u VALUES (7);");
  }

  // What read returns, or the text of the storage exception it throws.
  static std::string run(const std::function<std::string(Rows&)>& read) {
    Rows rows;
    try {
      return read(rows);
    } catch (const sqlite_exception& e) {
      return e.what();
    }
  }

  static std::string text_of(const Rows& rows) {
    std::string text;
    for (const Row& row : rows) {
      for (const auto& [name, value] : row) text += name + "=" + value.text() + ";";
    }
    return text;
  }

  // The records of sql as "name=value;" text, or the exception's text.
  std::string select_cached(StatementCache& cache, const char* sql) {
    return run([&](Rows& rows) {
      Statement st(cache, sql);
      db.read_data_prepared(st, rows);
      return text_of(rows);
    });
  }

  std::string select_fresh(DBAccess& on, const char* sql) {
    return run([&](Rows& rows) {
      Statement st(on.handle, sql);
      on.read_data_prepared(st, rows);
      return text_of(rows);
    });
  }

  static int live_statements(sqlite3* handle) {
    int count = 0;
    for (sqlite3_stmt* s = sqlite3_next_stmt(handle, nullptr); s != nullptr; s = sqlite3_next_stmt(handle, s)) {
      ++count;
    }
    return count;
  }

  TempDir dir;
  DBAccess db{dir.file("test.db"), kFlags};
};

}  // namespace

TEST_F(StatementCacheTest, ATextIsCompiledOnceAndItsStatementKeptBetweenUses) {
  StatementCache cache(db.handle);
  sqlite3_stmt* first = nullptr;
  {
    Statement st(cache, kSelectT);
    first = st.get_compiled_statement();
  }
  EXPECT_EQ(live_statements(db.handle), 1);
  Statement again(cache, kSelectT);
  EXPECT_EQ(again.get_compiled_statement(), first);
}

TEST_F(StatementCacheTest, AStatementComesBackResetWithItsBindingsCleared) {
  StatementCache cache(db.handle);
  {
    Statement st(cache, kInsertT);
    st.bind(1, std::string("b"));
    st.bind(2, 2);
    db.execute_query_prepared(st);
  }
  {
    Statement st(cache, kInsertT);
    st.bind(1, std::string("c"));  // parameter 2 left unbound: NULL, not 2
    db.execute_query_prepared(st);
  }
  EXPECT_EQ(select_cached(cache, kSelectT), "i=1;k=a;i=2;k=b;i=;k=c;");
}

TEST_F(StatementCacheTest, ResultsEqualThoseOfFreshStatements) {
  StatementCache cache(db.handle);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(select_cached(cache, kSelectT), select_fresh(db, kSelectT));
    EXPECT_EQ(select_cached(cache, kSelectU), select_fresh(db, kSelectU));
  }
}

TEST_F(StatementCacheTest, CompileFailureThrowsAsAStatementDoes) {
  StatementCache cache(db.handle);
  try {
    Statement st(cache, "SELECT * FROM missing");
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "sqlite prepare statement failed for query - SELECT * FROM missing");
  }
  StatementCache no_connection(nullptr);
  try {
    Statement st(no_connection, kSelectT);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Invalid database object received.");
  }
}

TEST_F(StatementCacheTest, AFailedExecutionFinalizesEveryKeptStatement) {
  StatementCache cache(db.handle);
  select_cached(cache, kSelectT);
  select_cached(cache, kSelectU);
  ASSERT_EQ(live_statements(db.handle), 2);
  const std::string failure = run([&](Rows&) {
    Statement st(cache, kInsertT);
    st.bind(1, std::string("a"));  // the key exists: the step fails
    st.bind(2, 9);
    db.execute_query_prepared(st);
    return std::string("no exception");
  });
  EXPECT_EQ(failure, "sqlite query execution failed.");
  EXPECT_EQ(live_statements(db.handle), 0);
  EXPECT_EQ(select_cached(cache, kSelectU), "v=7;");
}

// Another connection changes the schema: the next statement run fails,
// kept or freshly compiled alike, and every statement after it runs, again
// alike.
TEST_F(StatementCacheTest, AnotherConnectionsSchemaChangeActsOnKeptStatementsAsOnFreshOnes) {
  DBAccess other(dir.file("test.db"), kFlags);
  DBAccess fresh(dir.file("test.db"), kFlags);
  StatementCache cache(db.handle);
  EXPECT_EQ(select_cached(cache, kSelectT), select_fresh(fresh, kSelectT));
  EXPECT_EQ(select_cached(cache, kSelectU), select_fresh(fresh, kSelectU));

  other.execute_query("CREATE INDEX t_by_i ON t(i)");
  const std::string kept_first = select_cached(cache, kSelectT);
  const std::string fresh_first = select_fresh(fresh, kSelectT);
  EXPECT_EQ(kept_first, "sqlite query execution failed.");
  EXPECT_EQ(kept_first, fresh_first);
  EXPECT_EQ(select_cached(cache, kSelectU), select_fresh(fresh, kSelectU));
  EXPECT_EQ(select_cached(cache, kSelectU), "v=7;");
  EXPECT_EQ(select_cached(cache, kSelectT), select_fresh(fresh, kSelectT));
}

// Setting an authorizer expires every statement of the connection.
TEST_F(StatementCacheTest, AStatementSqliteExpiredIsCompiledAfresh) {
  StatementCache cache(db.handle);
  sqlite3_stmt* first = nullptr;
  {
    Statement st(cache, kSelectAllU);
    first = st.get_compiled_statement();
  }
  sqlite3_set_authorizer(db.handle, allow_everything, nullptr);
  ASSERT_TRUE(sqlite3_expired(first));
  EXPECT_EQ(select_cached(cache, kSelectAllU), "v=7;");
  EXPECT_EQ(live_statements(db.handle), 1);
}

TEST_F(StatementCacheTest, DestroyingTheCacheFinalizesItsStatements) {
  {
    StatementCache cache(db.handle);
    select_cached(cache, kSelectT);
    select_cached(cache, kSelectU);
    EXPECT_EQ(live_statements(db.handle), 2);
  }
  EXPECT_EQ(live_statements(db.handle), 0);
}
