#include "storage/DBAccess.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;
using tsanomaly_test::TempDir;

namespace {

constexpr int kServiceFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;

class DBAccessTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("test.db");
};

}  // namespace

TEST_F(DBAccessTest, ServiceFlagsCreateTheFile) {
  EXPECT_EQ(kServiceFlags, 0x8006);
  {
    DBAccess db(path, kServiceFlags);
    EXPECT_NE(db.handle, nullptr);
  }
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(DBAccessTest, OpeningInAMissingDirectoryThrowsWithThePath) {
  const std::string bad = dir.file("no/such/dir/x.db");
  try {
    DBAccess db(bad, kServiceFlags);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), ("Could not open database " + bad).c_str());
    EXPECT_STREQ(e.inner_message(), "");
  }
}

TEST_F(DBAccessTest, OpeningReadOnlyWithoutCreateOnMissingFileThrows) {
  EXPECT_THROW(DBAccess(path, SQLITE_OPEN_READONLY), sqlite_exception);
}

TEST_F(DBAccessTest, ReadDataReturnsRowsInDeliveryOrderAndAppends) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a INTEGER, b TEXT); INSERT INTO t VALUES (1, 'x'), (2, 'y');");
  Rows rows(1);  // earlier contents are kept
  db.read_data("SELECT a, b FROM t ORDER BY a", rows);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_TRUE(rows[0].empty());
  EXPECT_TRUE(rows[1]["a"] == "1");
  EXPECT_TRUE(rows[1]["b"] == "x");
  EXPECT_TRUE(rows[2]["a"] == "2");
  EXPECT_TRUE(rows[2]["b"] == "y");
}

TEST_F(DBAccessTest, ReadDataWithNoRecordsLeavesRowsUnchanged) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a INTEGER)");
  Rows rows;
  EXPECT_NO_THROW(db.read_data("SELECT * FROM t", rows));
  EXPECT_TRUE(rows.empty());
}

TEST_F(DBAccessTest, ReadDataKeepsTheFirstOfTwoColumnsWithTheSameName) {
  DBAccess db(path, kServiceFlags);
  Rows rows;
  db.read_data("SELECT 1 AS X, 2 AS X", rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].size(), 1u);
  EXPECT_TRUE(rows[0]["X"] == "1");
}

TEST_F(DBAccessTest, ReadDataTurnsANullCellIntoAnEmptyValue) {
  DBAccess db(path, kServiceFlags);
  Rows rows;
  db.read_data("SELECT NULL AS N, 5 AS F", rows);
  ASSERT_EQ(rows.size(), 1u);
  ASSERT_EQ(rows[0].count("N"), 1u);
  EXPECT_TRUE(rows[0]["N"] == "");
  EXPECT_EQ(static_cast<int>(rows[0]["N"]), 0);
  EXPECT_TRUE(rows[0]["F"] == "5");
}

TEST_F(DBAccessTest, ReadDataRendersRealsAsSqliteText) {
  DBAccess db(path, kServiceFlags);
  Rows rows;
  db.read_data("SELECT 1.5 AS R, 2.0 AS W, 'txt' AS T", rows);
  EXPECT_TRUE(rows[0]["R"] == "1.5");
  EXPECT_TRUE(rows[0]["W"] == "2.0");
  EXPECT_TRUE(rows[0]["T"] == "txt");
}

TEST_F(DBAccessTest, ReadDataFailureKeepsRecordsReadBeforeIt) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a INTEGER); INSERT INTO t VALUES (1), (2), (3);");
  Rows rows;
  // abs() of the smallest integer overflows on the third record only; no
  // ORDER BY, so the first two records are delivered before it is computed.
  const std::string sql = "SELECT abs(CASE a WHEN 3 THEN -9223372036854775808 ELSE a END) AS v FROM t";
  try {
    db.read_data(sql, rows);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), ("Query execution failed for  " + sql).c_str());
    EXPECT_STREQ(e.inner_message(), "integer overflow");
  }
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[1]["v"] == "2");
}

TEST_F(DBAccessTest, SyntaxErrorInExecuteQueryCarriesSqlAndSqliteMessage) {
  DBAccess db(path, kServiceFlags);
  const std::string sql = "SELEC nothing";
  try {
    db.execute_query(sql);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Query execution failed for  SELEC nothing");
    EXPECT_STREQ(e.inner_message(), "near \"SELEC\": syntax error");
  }
}

TEST_F(DBAccessTest, ReadDataOnMissingTableThrowsWithSqliteMessage) {
  DBAccess db(path, kServiceFlags);
  Rows rows;
  try {
    db.read_data("SELECT * FROM DATA_TO_PROCESS where PROCESSED_STATUS = 0", rows);
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Query execution failed for  SELECT * FROM DATA_TO_PROCESS where PROCESSED_STATUS = 0");
    EXPECT_STREQ(e.inner_message(), "no such table: DATA_TO_PROCESS");
  }
}

TEST_F(DBAccessTest, CreateTableFailureHasItsOwnPrefix) {
  DBAccess db(path, kServiceFlags);
  db.create_table("CREATE TABLE t(a)");
  try {
    db.create_table("CREATE TABLE t(a)");
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Failed to create table with query CREATE TABLE t(a)");
    EXPECT_STREQ(e.inner_message(), "table t already exists");
  }
}

TEST_F(DBAccessTest, TransactionsCommitAndRollBack) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a)");
  db.begin_transaction();
  db.execute_query("INSERT INTO t VALUES (1)");
  db.commit_transaction();
  db.begin_transaction();
  db.execute_query("INSERT INTO t VALUES (2)");
  db.rollback_transaction();
  Rows rows;
  db.read_data("SELECT COUNT(*) FROM t", rows);
  EXPECT_TRUE(rows[0]["COUNT(*)"] == "1");
}

TEST_F(DBAccessTest, TransactionMisuseThrowsNamedMessages) {
  DBAccess db(path, kServiceFlags);
  try {
    db.commit_transaction();
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "END TRANSACTION execution failed.");
    EXPECT_STREQ(e.inner_message(), "cannot commit - no transaction is active");
  }
  try {
    db.rollback_transaction();
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "ROLLBACK TRANSACTION execution failed.");
    EXPECT_STREQ(e.inner_message(), "cannot rollback - no transaction is active");
  }
  db.begin_transaction();
  try {
    db.begin_transaction();
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "BEGIN TRANSACTION execution failed.");
    EXPECT_STREQ(e.inner_message(), "cannot start a transaction within a transaction");
  }
}

TEST_F(DBAccessTest, IsAutoCommitOnIsNotImplemented) {
  DBAccess db(path, kServiceFlags);
  try {
    db.is_auto_commit_on();
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Not implemented");
    EXPECT_STREQ(e.inner_message(), "");
  }
}

TEST_F(DBAccessTest, LockedDatabaseFailsTheWriteWithSqliteBusyText) {
  DBAccess holder(path, kServiceFlags);
  holder.execute_query("CREATE TABLE t(a)");
  holder.begin_transaction();
  holder.execute_query("INSERT INTO t VALUES (1)");
  DBAccess other(path, kServiceFlags);
  try {
    other.execute_query("INSERT INTO t VALUES (2)");
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Query execution failed for  INSERT INTO t VALUES (2)");
    EXPECT_STREQ(e.inner_message(), "database is locked");
  }
  holder.rollback_transaction();
}

TEST(SqliteException, ConstructorsFillMessageAndInner) {
  sqlite_exception plain("m");
  EXPECT_STREQ(plain.what(), "m");
  EXPECT_STREQ(plain.inner_message(), "");
  sqlite_exception both("m", "i");
  EXPECT_STREQ(both.inner_message(), "i");
  std::stringstream ss;
  ss << "from " << 42;
  sqlite_exception streamed(ss);
  EXPECT_STREQ(streamed.what(), "from 42");
  EXPECT_STREQ(streamed.inner_message(), "");
  sqlite_exception streamed_inner(ss, "inner");
  EXPECT_STREQ(streamed_inner.what(), "from 42");
  EXPECT_STREQ(streamed_inner.inner_message(), "inner");
  const std::exception& base = both;
  EXPECT_STREQ(base.what(), "m");
}

TEST_F(DBAccessTest, BusyTimeoutWaitsForAShortLockInsteadOfFailing) {
  DBAccess holder(path, kServiceFlags);
  holder.execute_query("CREATE TABLE t(a)");
  DBAccess waiter(path, kServiceFlags);
  waiter.set_busy_timeout(5000);
  holder.begin_transaction();
  holder.execute_query("INSERT INTO t VALUES (1)");
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    holder.commit_transaction();
  });
  EXPECT_NO_THROW(waiter.execute_query("INSERT INTO t VALUES (2)"));
  release.join();
  Rows rows;
  waiter.read_data("SELECT COUNT(*) FROM t", rows);
  EXPECT_TRUE(rows[0]["COUNT(*)"] == "2");
}

TEST_F(DBAccessTest, BusyTimeoutGivesUpAfterItsTime) {
  DBAccess holder(path, kServiceFlags);
  holder.execute_query("CREATE TABLE t(a)");
  DBAccess waiter(path, kServiceFlags);
  waiter.set_busy_timeout(50);
  holder.begin_transaction();
  holder.execute_query("INSERT INTO t VALUES (1)");
  try {
    waiter.execute_query("INSERT INTO t VALUES (2)");
    FAIL();
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.inner_message(), "database is locked");
  }
  holder.rollback_transaction();
}

// The records visit_records_prepared hands out are those read_data_prepared
// appends: same order, same cells (NULL as ""), the later of two cells of
// one name, and no second step after the last record.
TEST_F(DBAccessTest, VisitingRecordsSeesWhatReadingRowsAppends) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a INTEGER, b TEXT, c REAL); INSERT INTO t VALUES (1, 'x', 0.5), (2, NULL, 2.0);");
  const std::string sql = "SELECT a, b, c, a + 10 AS b FROM t ORDER BY a";
  Rows expected;
  {
    Statement st(db.handle, sql);
    db.read_data_prepared(st, expected);
  }
  Rows visited;
  {
    Statement st(db.handle, sql);
    db.visit_records_prepared(st, [&visited](const RecordCursor& record) {
      Row row;
      for (int i = 0; i < record.cell_count(); ++i) row[record.column_name(i)] = Value(std::string(record.text(i)));
      visited.push_back(row);
    });
  }
  EXPECT_EQ(visited, expected);
  ASSERT_EQ(visited.size(), 2u);
  EXPECT_TRUE(visited[1]["b"] == "12");
}

TEST_F(DBAccessTest, VisitingRecordsFailsAsReadingRowsFails) {
  DBAccess db(path, kServiceFlags);
  db.execute_query("CREATE TABLE t(a INTEGER UNIQUE); INSERT INTO t VALUES (1);");
  Statement st(db.handle, "INSERT INTO t VALUES (1)");
  int visits = 0;
  try {
    db.visit_records_prepared(st, [&visits](const RecordCursor&) { ++visits; });
    FAIL() << "expected an exception";
  } catch (const sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "sqlite query execution failed.");
  }
  EXPECT_EQ(visits, 0);
}
