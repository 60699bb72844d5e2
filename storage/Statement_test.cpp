#include "storage/Statement.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;
using tsanomaly_test::TempDir;

namespace {

class StatementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db.execute_query("CREATE TABLE t(k TEXT UNIQUE, i INTEGER, d REAL)");
  }
  TempDir dir;
  DBAccess db{dir.file("test.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX};
};

std::string exception_text(const std::function<void()>& action) {
  try {
    action();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.inner_message(), "");
    return e.what();
  }
  return "no exception";
}

}  // namespace

TEST(StatementCopy, StatementIsNotCopyable) {
  EXPECT_FALSE(std::is_copy_constructible_v<Statement>);
  EXPECT_FALSE(std::is_copy_assignable_v<Statement>);
}

TEST(StatementConstruction, NullConnectionIsRejected) {
  EXPECT_EQ(exception_text([] { Statement st(nullptr, "SELECT 1"); }), "Invalid database object received.");
}

TEST_F(StatementTest, SyntaxErrorThrowsWithTheSqlText) {
  EXPECT_EQ(exception_text([&] { Statement st(db.handle, "SELEKT * FROM t"); }),
            "sqlite prepare statement failed for query - SELEKT * FROM t");
}

TEST_F(StatementTest, MissingTableFailsAtPrepare) {
  EXPECT_EQ(exception_text([&] { Statement st(db.handle, "SELECT * FROM HIST_DATA"); }),
            "sqlite prepare statement failed for query - SELECT * FROM HIST_DATA");
}

TEST_F(StatementTest, BindingIndexZeroOrBeyondThePlaceholdersThrows) {
  Statement st(db.handle, "INSERT INTO t VALUES (?, ?, ?)");
  EXPECT_EQ(exception_text([&] { st.bind(0, std::string("x")); }), "sqlite bind failed.");
  EXPECT_EQ(exception_text([&] { st.bind(4, 1); }), "sqlite bind failed.");
  EXPECT_EQ(exception_text([&] { st.bind(-1, 1.5); }), "sqlite bind failed.");
}

TEST_F(StatementTest, BoundValuesArriveWithTheirTypes) {
  {
    Statement st(db.handle, "INSERT INTO t VALUES (?, ?, ?)");
    st.bind(1, std::string("key"));
    st.bind(2, -7);
    st.bind(3, 2.5);
    db.execute_query_prepared(st);
  }
  Rows rows;
  db.read_data("SELECT typeof(k) AS tk, k, typeof(i) AS ti, i, typeof(d) AS td, d FROM t", rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["tk"] == "text");
  EXPECT_TRUE(rows[0]["k"] == "key");
  EXPECT_TRUE(rows[0]["ti"] == "integer");
  EXPECT_TRUE(rows[0]["i"] == "-7");
  EXPECT_TRUE(rows[0]["td"] == "real");
  EXPECT_TRUE(rows[0]["d"] == "2.5");
}

TEST_F(StatementTest, BoundTextSurvivesTheCallersString) {
  Statement st(db.handle, "INSERT INTO t VALUES (?, 1, 1.0)");
  st.bind(1, std::string(64, 'q'));  // the temporary dies before the step
  db.execute_query_prepared(st);
  Rows rows;
  db.read_data("SELECT k FROM t", rows);
  EXPECT_TRUE(rows[0]["k"] == std::string(64, 'q'));
}

TEST_F(StatementTest, BoundTextStopsAtItsFirstNulCharacter) {
  Statement st(db.handle, "INSERT INTO t VALUES (?, 1, 1.0)");
  st.bind(1, std::string("ab\0cd", 5));
  db.execute_query_prepared(st);
  Rows rows;
  db.read_data("SELECT k, length(k) AS n FROM t", rows);
  EXPECT_TRUE(rows[0]["n"] == "2");
}

TEST_F(StatementTest, OnlyTheFirstStatementOfTheTextIsCompiled) {
  {
    Statement st(db.handle, "INSERT INTO t VALUES ('a', 1, 1.0); INSERT INTO t VALUES ('b', 2, 2.0);");
    db.execute_query_prepared(st);
  }
  Rows rows;
  db.read_data("SELECT COUNT(*) FROM t", rows);
  EXPECT_TRUE(rows[0]["COUNT(*)"] == "1");
}

TEST_F(StatementTest, ResetKeepsBindingsSoTheStatementRunsAgain) {
  Statement st(db.handle, "INSERT INTO t VALUES (?, ?, 1.0)");
  st.bind(1, std::string("a"));
  st.bind(2, 1);
  db.execute_query_prepared(st);
  st.reset();
  st.bind(1, std::string("b"));
  db.execute_query_prepared(st);
  Rows rows;
  db.read_data("SELECT k, i FROM t ORDER BY k", rows);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[1]["k"] == "b");
  EXPECT_TRUE(rows[1]["i"] == "1");
}

TEST_F(StatementTest, ExecutePreparedOfASelectThatMatchesThrows) {
  db.execute_query("INSERT INTO t VALUES ('a', 1, 1.0)");
  Statement st(db.handle, "SELECT * FROM t WHERE k = ?");
  st.bind(1, std::string("a"));
  EXPECT_EQ(exception_text([&] { db.execute_query_prepared(st); }), "sqlite query execution failed.");
}

TEST_F(StatementTest, ExecutePreparedOfASelectThatMatchesNothingSucceeds) {
  Statement st(db.handle, "SELECT * FROM t WHERE k = ?");
  st.bind(1, std::string("nothing"));
  EXPECT_NO_THROW(db.execute_query_prepared(st));
}

TEST_F(StatementTest, ConstraintViolationFailsTheFirstStep) {
  db.execute_query("INSERT INTO t VALUES ('a', 1, 1.0)");
  Statement st(db.handle, "INSERT INTO t VALUES (?, 2, 2.0)");
  st.bind(1, std::string("a"));
  EXPECT_EQ(exception_text([&] { db.execute_query_prepared(st); }), "sqlite query execution failed.");
}

TEST_F(StatementTest, LockedDatabaseMakesExecutePreparedThrow) {
  DBAccess holder(dir.file("test.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
  holder.begin_transaction();
  holder.execute_query("INSERT INTO t VALUES ('h', 1, 1.0)");
  Statement st(db.handle, "INSERT INTO t VALUES ('x', 1, 1.0)");
  // SQLITE_BUSY is not SQLITE_ERROR: the step passes, the DONE check fails.
  EXPECT_EQ(exception_text([&] { db.execute_query_prepared(st); }), "sqlite query execution failed.");
  holder.rollback_transaction();
}
