#include "storage/QueryResult.h"

#include <gtest/gtest.h>

#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;
using tsanomaly_test::TempDir;

namespace {

class QueryResultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db.execute_query(
        "CREATE TABLE t(k TEXT, v INTEGER, n TEXT);"
        "INSERT INTO t VALUES ('a', 1, NULL), ('b', 2, 'x'), ('c', 3, 'y');");
  }
  TempDir dir;
  DBAccess db{dir.file("test.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX};
};

}  // namespace

TEST_F(QueryResultTest, SelectMatchingNothingEndsDoneAndAppendsNothing) {
  Statement st(db.handle, "SELECT * FROM t WHERE k = ?");
  st.bind(1, std::string("zzz"));
  {
    QueryResult result(st);
    EXPECT_EQ(result.get_last_status(), SQLITE_DONE);
    Row row;
    EXPECT_FALSE(result.get_next_record(row));
    EXPECT_EQ(result.get_last_status(), SQLITE_DONE);
  }
  st.reset();
  Rows rows(2);
  EXPECT_NO_THROW(db.read_data_prepared(st, rows));
  EXPECT_EQ(rows.size(), 2u);
}

TEST_F(QueryResultTest, RecordsArriveInOrderAndThenStop) {
  Statement st(db.handle, "SELECT k, v FROM t ORDER BY v");
  QueryResult result(st);
  EXPECT_EQ(result.get_last_status(), SQLITE_ROW);
  Row row;
  std::string keys;
  while (result.get_next_record(row)) {
    keys += std::string(row["k"]);
  }
  EXPECT_EQ(keys, "abc");
  EXPECT_EQ(result.get_last_status(), SQLITE_DONE);
  EXPECT_FALSE(result.get_next_record(row));
}

TEST_F(QueryResultTest, ReadDataPreparedAppendsEveryRecord) {
  Statement st(db.handle, "SELECT k, v FROM t WHERE v >= ? ORDER BY v");
  st.bind(1, 2);
  Rows rows(1);
  db.read_data_prepared(st, rows);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_TRUE(rows[1]["k"] == "b");
  EXPECT_TRUE(rows[2]["v"] == "3");
  EXPECT_EQ(rows[2].size(), 2u);
}

TEST_F(QueryResultTest, NullCellReadsAsEmptyValue) {
  Statement st(db.handle, "SELECT n FROM t WHERE k = 'a'");
  Rows rows;
  db.read_data_prepared(st, rows);
  ASSERT_EQ(rows.size(), 1u);
  ASSERT_EQ(rows[0].count("n"), 1u);
  EXPECT_TRUE(rows[0]["n"] == "");
  EXPECT_EQ(static_cast<int>(rows[0]["n"]), 0);
}

TEST_F(QueryResultTest, CountStarIsKeyedByItsExpressionText) {
  Statement st(db.handle, "SELECT COUNT(*)  FROM t WHERE v > ?");
  st.bind(1, 1);
  Rows rows;
  db.read_data_prepared(st, rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].size(), 1u);
  EXPECT_TRUE(rows[0]["COUNT(*)"] == "2");
}

TEST_F(QueryResultTest, MaxOverNoRowsIsOneRecordWithAnEmptyValue) {
  Statement st(db.handle, "SELECT MAX(v) FROM t WHERE k = 'none'");
  Rows rows;
  db.read_data_prepared(st, rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["MAX(v)"] == "");
  EXPECT_EQ(static_cast<int>(rows[0]["MAX(v)"]), 0);
}

TEST_F(QueryResultTest, RepeatedColumnNameKeepsTheLastCell) {
  Statement st(db.handle, "SELECT 1 AS X, 2 AS X");
  Rows rows;
  db.read_data_prepared(st, rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["X"] == "2");
}

TEST_F(QueryResultTest, LaterRecordsAreAssignedIntoTheCallersRow) {
  Statement st(db.handle, "SELECT k FROM t ORDER BY v");
  QueryResult result(st);
  Row row;
  ASSERT_TRUE(result.get_next_record(row));  // the pending first record replaces row
  row["extra"] = Value(9);
  ASSERT_TRUE(result.get_next_record(row));  // stepped records are assigned into row
  EXPECT_TRUE(row["k"] == "b");
  EXPECT_TRUE(row["extra"] == "9");
}

TEST_F(QueryResultTest, PendingFirstRecordReplacesTheWholeRow) {
  Statement st(db.handle, "SELECT k FROM t ORDER BY v");
  QueryResult result(st);
  Row row;
  row["stale"] = Value(1);
  ASSERT_TRUE(result.get_next_record(row));
  EXPECT_EQ(row.count("stale"), 0u);
  EXPECT_TRUE(row["k"] == "a");
}

TEST_F(QueryResultTest, ErrorAfterTheFirstStepEndsIterationQuietly) {
  Statement st(db.handle,
               "SELECT abs(CASE v WHEN 3 THEN -9223372036854775808 ELSE v END) AS a FROM t");
  Rows rows;
  EXPECT_NO_THROW(db.read_data_prepared(st, rows));
  EXPECT_EQ(rows.size(), 2u);
}

TEST_F(QueryResultTest, ErrorOnTheFirstStepThrows) {
  Statement st(db.handle, "SELECT abs(-9223372036854775808 + v - v) FROM t");
  try {
    QueryResult result(st);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "sqlite query execution failed.");
    EXPECT_STREQ(e.inner_message(), "");
  }
}

TEST_F(QueryResultTest, ConstraintViolatingInsertThrowsOnTheFirstStep) {
  db.execute_query("CREATE TABLE u(k TEXT PRIMARY KEY); INSERT INTO u VALUES ('taken');");
  Statement st(db.handle, "INSERT INTO u VALUES (?)");
  st.bind(1, std::string("taken"));
  try {
    QueryResult result(st);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "sqlite query execution failed.");
  }
  Rows rows;
  db.read_data("SELECT COUNT(*) AS n FROM u", rows);
  EXPECT_EQ(static_cast<int>(rows.at(0)["n"]), 1);
}

TEST_F(QueryResultTest, BusyOnTheFirstStepReturnsNoRecordsAndNoException) {
  // An exclusive lock held elsewhere makes even a read report SQLITE_BUSY.
  DBAccess holder(dir.file("test.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
  holder.execute_query("BEGIN EXCLUSIVE");
  Statement st(db.handle, "SELECT k FROM t");
  {
    QueryResult result(st);
    EXPECT_EQ(result.get_last_status(), SQLITE_BUSY);
  }
  st.reset();
  Rows rows;
  EXPECT_NO_THROW(db.read_data_prepared(st, rows));
  EXPECT_TRUE(rows.empty());
  holder.rollback_transaction();
}
