#include "operator/StatementBudget.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "operator/DetectorDatabase.h"
#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using tsanomaly_test::TempDir;

namespace {

constexpr const char* kEndless =
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT count(*) FROM n";

// SQLite's own text for the failure sql ends with.
std::string failure_of(DBAccess& db, const std::string& sql) {
  try {
    db.execute_query(sql);
  } catch (const sqlite_exception&) {
    return sqlite3_errmsg(db.handle);
  }
  return "";
}

class StatementBudgetTest : public ::testing::Test {
 protected:
  DBAccess db{":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY};
};

}  // namespace

TEST_F(StatementBudgetTest, AStatementThatNeverEndsIsInterruptedAtItsDeadline) {
  statement_budget::apply(db.handle, std::chrono::milliseconds(100));
  EXPECT_EQ(failure_of(db, kEndless), "interrupted");
  // The next statement has a deadline of its own.
  Rows rows;
  db.read_data("SELECT 1 AS one", rows);
  EXPECT_EQ(rows.size(), 1u);
}

TEST_F(StatementBudgetTest, ATriggerThatSpinsIsInterruptedWithTheStatementThatFiredIt) {
  db.execute_query("CREATE TABLE T(x); CREATE TRIGGER SPIN AFTER INSERT ON T BEGIN "
                   "SELECT count(*) FROM (WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
                   "SELECT i FROM n); END;");
  statement_budget::apply(db.handle, std::chrono::milliseconds(100));
  EXPECT_EQ(failure_of(db, "INSERT INTO T VALUES (1)"), "interrupted");
  Rows rows;
  db.read_data("SELECT count(*) AS n FROM T", rows);
  EXPECT_EQ(rows[0]["n"], 0);
}

TEST_F(StatementBudgetTest, OversizedValuesAndDeepTriggerChainsAreRefused) {
  statement_budget::apply(db.handle);
  EXPECT_EQ(failure_of(db, "SELECT zeroblob(" + std::to_string(statement_budget::kMaxLength + 1) + ")"),
            "string or blob too big");
  // The literal is far shorter than the longest value: the SQL text is what is refused.
  EXPECT_EQ(failure_of(db, "SELECT '" + std::string(statement_budget::kMaxSqlLength, 'x') + "'"),
            "string or blob too big");
  db.execute_query("PRAGMA recursive_triggers = ON; CREATE TABLE T(x); CREATE TRIGGER DEEPER AFTER INSERT ON T "
                   "WHEN NEW.x < 100 BEGIN INSERT INTO T VALUES (NEW.x + 1); END;");
  EXPECT_EQ(failure_of(db, "INSERT INTO T VALUES (1)"), "too many levels of trigger recursion");
  EXPECT_NE(failure_of(db, "ATTACH ':memory:' AS other"), "");
}

TEST(DetectorDatabaseBudget, EveryConnectionTheToolsOpenCarriesTheBudget) {
  TempDir dir;
  DBAccess(dir.file("anomaly.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)
      .execute_query(anomaly_schema::anomaly_db_sql());
  for (auto* open : {&detector_database::open_for_reading, &detector_database::open_for_verdict}) {
    const detector_database::Connection db = open(dir.file("anomaly.db"));
    EXPECT_EQ(sqlite3_limit(db->handle, SQLITE_LIMIT_LENGTH, -1), statement_budget::kMaxLength);
    EXPECT_EQ(sqlite3_limit(db->handle, SQLITE_LIMIT_SQL_LENGTH, -1), statement_budget::kMaxSqlLength);
    EXPECT_EQ(sqlite3_limit(db->handle, SQLITE_LIMIT_TRIGGER_DEPTH, -1), statement_budget::kMaxTriggerDepth);
    EXPECT_EQ(sqlite3_limit(db->handle, SQLITE_LIMIT_ATTACHED, -1), 0);
  }
}
