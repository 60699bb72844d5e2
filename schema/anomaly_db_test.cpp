// Loads the shipped DDL into a real database and runs every statement the
// detector issues against it: results, uniqueness rules and query plans.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <variant>
#include <vector>

#include "schema/AnomalySchema.h"
#include "schema/DetectorSql.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;
using namespace detector_sql;
using tsanomaly_test::TempDir;

namespace {

using Bind = std::variant<int, double, std::string>;

const std::vector<Bind> kWorkload8 = {std::string("client1"), std::string("pol1"),   std::string("Standard"),
                                      std::string("app"),     std::string("FULL"),   std::string("daily"),
                                      std::string("stu1"),    std::string("asset1")};

class SchemaTest : public ::testing::Test {
 protected:
  void SetUp() override { db.execute_query(anomaly_schema::anomaly_db_sql()); }

  static void bind_all(Statement& st, const std::vector<Bind>& binds) {
    for (size_t i = 0; i < binds.size(); ++i) {
      std::visit([&](const auto& v) { st.bind(static_cast<int>(i + 1), v); }, binds[i]);
    }
  }

  Rows read(const char* sql, const std::vector<Bind>& binds = {}) {
    Statement st(db.handle, sql);
    bind_all(st, binds);
    Rows rows;
    db.read_data_prepared(st, rows);
    return rows;
  }

  void execute(const char* sql, const std::vector<Bind>& binds = {}) {
    Statement st(db.handle, sql);
    bind_all(st, binds);
    db.execute_query_prepared(st);
  }

  int count(const std::string& table) {
    Rows rows;
    db.read_data("SELECT COUNT(*) FROM " + table, rows);
    return rows[0]["COUNT(*)"];
  }

  // A queued job of workload kWorkload8, positional in DATA_TO_PROCESS order.
  void queue_job(const std::string& key, int backup_time, int stream = 1) {
    db.execute_query("INSERT INTO DATA_TO_PROCESS VALUES ('img-" + key + "', " + std::to_string(backup_time) +
                     ", 'client1', 'pol1', 'Standard', 'FULL', 'daily', 'app', 1000, 2048.5, 42, 41, 1500.25, "
                     "100, 200, 100, 3.5, 0, 'stu1', " +
                     std::to_string(stream) + ", 'asset1', '" + key + "', 0)");
  }

  // A history row: the 23 binds in HIST_DATA's positional order.
  static std::vector<Bind> history_binds(const std::string& key, int backup_time, int num_files, int stream = 1,
                                         const std::string& storage = "stu1") {
    return {std::string("img-" + key), backup_time, std::string("client1"), std::string("pol1"),
            std::string("Standard"),   std::string("FULL"), std::string("daily"), std::string("app"),
            num_files,                 2048.5,      42,     41,     1500.25,  100,   200,  100,  3.5,
            1,                         -1,          storage,       stream,   std::string("asset1"), key};
  }

  std::vector<std::string> plan_of(const char* sql) {
    std::vector<std::string> details;
    Statement st(db.handle, std::string("EXPLAIN QUERY PLAN ") + sql);
    Rows rows;
    db.read_data_prepared(st, rows);
    for (auto& row : rows) details.push_back(row["detail"]);
    return details;
  }

  TempDir dir;
  DBAccess db{dir.file("anomaly.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX};
};

std::vector<Bind> with(std::vector<Bind> head, const std::vector<Bind>& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

}  // namespace

TEST_F(SchemaTest, EmbeddedDdlIsTheShippedFile) {
  EXPECT_EQ(std::string(anomaly_schema::anomaly_db_sql()),
            TempDir::read(tsanomaly_test::source_dir() + "/schema/anomaly_db.sql"));
}

TEST_F(SchemaTest, DatabaseIsInWriteAheadLogMode) {
  Rows rows;
  db.read_data("PRAGMA journal_mode", rows);
  EXPECT_TRUE(rows[0]["journal_mode"] == "wal");
}

TEST_F(SchemaTest, LoadingTwiceIsHarmless) {
  db.execute_query(
      "INSERT INTO HIST_DATA (UNIQUE_KEY) VALUES ('kept');"
      "INSERT INTO ANOMALY_DATA_FEEDBACK VALUES ('42_1000', 1);");
  EXPECT_NO_THROW(db.execute_query(anomaly_schema::anomaly_db_sql()));
  Rows rows;
  db.read_data("SELECT (SELECT group_concat(UNIQUE_KEY) FROM HIST_DATA) AS history, "
               "(SELECT COUNT(*) FROM ANOMALY_DATA_FEEDBACK) AS verdicts",
               rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["history"] == "kept");
  EXPECT_TRUE(rows[0]["verdicts"] == "1");
}

TEST_F(SchemaTest, TablesHaveTheirColumnsInPositionalOrder) {
  auto columns = [&](const std::string& table) {
    Rows rows;
    db.read_data("PRAGMA table_info(" + table + ")", rows);
    std::string names;
    for (auto& row : rows) names += std::string(row["name"]) + " ";
    return names;
  };
  EXPECT_EQ(columns("DATA_TO_PROCESS"),
            "BACKUP_ID BACKUP_TIME CLIENT POLICY POLICY_TYPE SCHEDULE_TYPE SCHEDULE_NAME APP_TYPE NUM_FILES "
            "IMAGE_SIZE JOB_ID PARENT_JOB_ID KB_TRANSFERRED START_TIME END_TIME TOTAL_TIME DEDUP_RATE "
            "USER_IDENTIFIED_CLUSTER DESTINATION_STORAGE_NAME STREAM_NUMBER ASSET_ID UNIQUE_KEY PROCESSED_STATUS ");
  EXPECT_EQ(columns("HIST_DATA"),
            "BACKUP_ID BACKUP_TIME CLIENT POLICY POLICY_TYPE SCHEDULE_TYPE SCHEDULE_NAME APP_TYPE NUM_FILES "
            "IMAGE_SIZE JOB_ID PARENT_JOB_ID KB_TRANSFERRED START_TIME END_TIME TOTAL_TIME DEDUP_RATE MODE "
            "USER_IDENTIFIED_CLUSTER DESTINATION_STORAGE_NAME STREAM_NUMBER ASSET_ID UNIQUE_KEY ");
  EXPECT_EQ(columns("DBSCAN_MODEL_PARAMS"),
            "CLIENT POLICY POLICY_TYPE SCHEDULE_TYPE SCHEDULE_NAME APP_TYPE EPS CAPTURE_DATE "
            "DESTINATION_STORAGE_NAME ASSET_ID ");
  EXPECT_EQ(columns("ANOMALY_DATA"),
            "ANOMALY_UNIQUE_ID ANOMALY_PAYLOAD ANOMALY_STATE DETECTION_KEY CLIENT DETECTION_TIME ");
  EXPECT_EQ(columns("ANOMALY_DATA_FEEDBACK"), "ANOMALY_UNIQUE_ID FEEDBACK ");
}

TEST_F(SchemaTest, QueueAndFeedbackRejectNullCells) {
  EXPECT_THROW(db.execute_query("INSERT INTO ANOMALY_DATA_FEEDBACK VALUES (NULL, 1)"), sqlite_exception);
  EXPECT_THROW(db.execute_query("INSERT INTO DATA_TO_PROCESS (BACKUP_ID) VALUES ('x')"), sqlite_exception);
  EXPECT_EQ(count("DATA_TO_PROCESS"), 0);
}

TEST_F(SchemaTest, QueueRejectsASecondRowWithTheSameKey) {
  queue_job("k1", 100);
  EXPECT_THROW(queue_job("k1", 200), sqlite_exception);
  EXPECT_EQ(count("DATA_TO_PROCESS"), 1);
}

TEST_F(SchemaTest, QueueStatementsFindMarkAndDeleteByKey) {
  queue_job("k1", 100);
  queue_job("k2", 200);
  Rows pending;
  db.read_data(kSelectPendingJobs, pending);
  ASSERT_EQ(pending.size(), 2u);
  EXPECT_TRUE(pending[0]["UNIQUE_KEY"] == "k1");
  EXPECT_TRUE(pending[0]["IMAGE_SIZE"] == "2048.5");
  EXPECT_EQ(pending[0].size(), 23u);

  execute(kMarkJobProcessed, {std::string("k1")});
  pending.clear();
  db.read_data(kSelectPendingJobs, pending);
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_TRUE(pending[0]["UNIQUE_KEY"] == "k2");

  Rows marked = read(kSelectJobByKey, {std::string("k1")});
  ASSERT_EQ(marked.size(), 1u);
  EXPECT_TRUE(marked[0]["PROCESSED_STATUS"] == "1");

  execute(kDeletePendingJob, {std::string("k2")});
  EXPECT_EQ(count("DATA_TO_PROCESS"), 1);
}

TEST_F(SchemaTest, HistoryInsertForAKnownKeyReplacesTheRow) {
  execute(kInsertHistory, history_binds("k1", 100, 1000));
  execute(kInsertHistory, history_binds("k1", 100, 2000));
  EXPECT_EQ(count("HIST_DATA"), 1);
  Rows rows;
  db.read_data("SELECT NUM_FILES, MODE, USER_IDENTIFIED_CLUSTER FROM HIST_DATA", rows);
  EXPECT_TRUE(rows[0]["NUM_FILES"] == "2000");
  EXPECT_TRUE(rows[0]["MODE"] == "1");
  EXPECT_TRUE(rows[0]["USER_IDENTIFIED_CLUSTER"] == "-1");
}

TEST_F(SchemaTest, TrainingQueriesReturnNewestFirstUpToTheLimit) {
  execute(kInsertHistory, history_binds("k1", 100, 1));
  execute(kInsertHistory, history_binds("k2", 300, 3));
  execute(kInsertHistory, history_binds("k3", 200, 2, 1, "other-storage"));

  Rows full = read(kSelectTrainingSet, with(kWorkload8, {1, 5}));
  ASSERT_EQ(full.size(), 2u);
  EXPECT_TRUE(full[0]["NUM_FILES"] == "3");
  EXPECT_TRUE(full[1]["NUM_FILES"] == "1");
  EXPECT_EQ(full[0].size(), 6u);

  std::vector<Bind> seven(kWorkload8.begin(), kWorkload8.end());
  seven.erase(seven.begin() + 6);  // the fallback ignores the storage name
  Rows fallback = read(kSelectFallbackTrainingSet, with(seven, {2}));
  ASSERT_EQ(fallback.size(), 2u);
  EXPECT_TRUE(fallback[0]["NUM_FILES"] == "3");
  EXPECT_TRUE(fallback[1]["NUM_FILES"] == "2");
  EXPECT_EQ(fallback[0].size(), 4u);

  Rows total = read(kCountHistoryAnyStorage, seven);
  EXPECT_TRUE(total[0]["COUNT(*)"] == "3");
}

TEST_F(SchemaTest, LastBackupTimeIsTheNewestOfTheWorkloadAndEmptyWithoutHistory) {
  Rows none = read(kSelectLastBackupTime, kWorkload8);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_TRUE(none[0]["MAX(BACKUP_TIME)"] == "");
  EXPECT_EQ(static_cast<int>(none[0]["MAX(BACKUP_TIME)"]), 0);

  execute(kInsertHistory, history_binds("k1", 100, 1));
  execute(kInsertHistory, history_binds("k2", 300, 1));
  Rows last = read(kSelectLastBackupTime, kWorkload8);
  EXPECT_TRUE(last[0]["MAX(BACKUP_TIME)"] == "300");
}

TEST_F(SchemaTest, StreamQueriesIgnoreStorageAndAsset) {
  const std::vector<Bind> six(kWorkload8.begin(), kWorkload8.begin() + 6);
  Rows none = read(kSelectMaxStreamNumber, six);
  EXPECT_TRUE(none[0]["MAX(STREAM_NUMBER)"] == "");

  execute(kInsertHistory, history_binds("k1", 100, 1, 1));
  execute(kInsertHistory, history_binds("k2", 200, 1, 4, "other-storage"));
  execute(kInsertHistory, history_binds("k3", 300, 1, 4));
  EXPECT_TRUE(read(kSelectMaxStreamNumber, six)[0]["MAX(STREAM_NUMBER)"] == "4");
  EXPECT_TRUE(read(kCountHistoryOfStream, with(six, {4}))[0]["COUNT(*)"] == "2");
  EXPECT_TRUE(read(kCountHistoryOfStream, with(six, {2}))[0]["COUNT(*)"] == "0");
}

TEST_F(SchemaTest, ModelParamsKeepOneRowPerWorkload) {
  // DBSCAN_MODEL_PARAMS orders the key as CLIENT, POLICY, POLICY_TYPE,
  // SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, then storage and asset.
  const std::vector<Bind> key = {std::string("client1"), std::string("pol1"), std::string("Standard"),
                                 std::string("FULL"),    std::string("daily"), std::string("app"),
                                 std::string("stu1"),    std::string("asset1")};
  auto model_row = [&](double eps, int capture) {
    std::vector<Bind> binds(key.begin(), key.begin() + 6);
    binds.insert(binds.end(), {eps, capture, key[6], key[7]});
    return binds;
  };
  EXPECT_TRUE(read(kSelectModelParams, key).empty());
  execute(kInsertModelParams, model_row(2.7, 1000));
  execute(kInsertModelParams, model_row(3.1, 2000));
  EXPECT_EQ(count("DBSCAN_MODEL_PARAMS"), 1);
  Rows params = read(kSelectModelParams, key);
  ASSERT_EQ(params.size(), 1u);
  EXPECT_TRUE(params[0]["EPS"] == "3.1");
  EXPECT_TRUE(params[0]["CAPTURE_DATE"] == "2000");

  execute(kDeleteModelParams, key);
  EXPECT_EQ(count("DBSCAN_MODEL_PARAMS"), 0);
}

TEST_F(SchemaTest, SecondAnomalyReportOfTheSameJobIsIgnored) {
  execute(kInsertAnomaly, {std::string("42_100"), std::string("{\"first\":1}"), 0, std::string("k1"),
                           std::string("client1"), 5000});
  execute(kInsertAnomaly, {std::string("42_100"), std::string("{\"second\":2}"), 0, std::string("k9"),
                           std::string("client1"), 6000});
  EXPECT_EQ(count("ANOMALY_DATA"), 1);
  Rows rows = read(kSelectDetectionKey, {std::string("42_100")});
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["DETECTION_KEY"] == "k1");
  Rows payload;
  db.read_data("SELECT ANOMALY_PAYLOAD, ANOMALY_STATE, DETECTION_TIME FROM ANOMALY_DATA", payload);
  EXPECT_TRUE(payload[0]["ANOMALY_PAYLOAD"] == "{\"first\":1}");
  EXPECT_TRUE(payload[0]["DETECTION_TIME"] == "5000");
}

TEST_F(SchemaTest, FeedbackIsReadByVerdictAndDeletedById) {
  db.execute_query("INSERT INTO ANOMALY_DATA_FEEDBACK VALUES ('42_100', 1), ('43_100', 0), ('44_100', 1)");
  Rows verdicts;
  db.read_data(kSelectFeedback, verdicts);
  ASSERT_EQ(verdicts.size(), 2u);
  EXPECT_TRUE(verdicts[0]["ANOMALY_UNIQUE_ID"] == "42_100");
  execute(kDeleteFeedback, {std::string("42_100")});
  EXPECT_EQ(count("ANOMALY_DATA_FEEDBACK"), 2);
}

// Every statement on the history and the model table must be an index
// search: on a large domain a scan per job would dominate the pass.
TEST_F(SchemaTest, DetectorQueriesOnHistoryAndModelsAreIndexSearches) {
  const char* statements[] = {kInsertHistory,        kSelectTrainingSet,     kSelectFallbackTrainingSet,
                              kSelectLastBackupTime, kCountHistoryAnyStorage, kSelectMaxStreamNumber,
                              kCountHistoryOfStream, kSelectModelParams,     kDeleteModelParams,
                              kInsertModelParams};
  for (int populated = 0; populated < 2; ++populated) {
    if (populated == 1) {
      for (int i = 0; i < 200; ++i) execute(kInsertHistory, history_binds("k" + std::to_string(i), i, i, i % 4));
      db.execute_query("ANALYZE");
    }
    for (const char* sql : statements) {
      for (const std::string& detail : plan_of(sql)) {
        SCOPED_TRACE(std::string(sql) + " -> " + detail);
        EXPECT_EQ(detail.rfind("SCAN", 0), std::string::npos);
        EXPECT_EQ(detail.find("TEMP B-TREE"), std::string::npos);
      }
    }
  }
}

TEST_F(SchemaTest, TrainingReadsAreServedFromTheIndexAlone) {
  for (const char* sql : {kSelectTrainingSet, kSelectFallbackTrainingSet, kCountHistoryAnyStorage,
                          kCountHistoryOfStream, kSelectMaxStreamNumber}) {
    const auto plan = plan_of(sql);
    ASSERT_FALSE(plan.empty());
    SCOPED_TRACE(std::string(sql) + " -> " + plan[0]);
    EXPECT_NE(plan[0].find("COVERING INDEX"), std::string::npos);
  }
}

TEST_F(SchemaTest, QueueAndFeedbackStatementsAreIndexSearches) {
  for (const char* sql : {kSelectPendingJobs, kMarkJobProcessed, kDeletePendingJob, kSelectJobByKey,
                          kSelectDetectionKey, kSelectFeedback, kDeleteFeedback}) {
    for (const std::string& detail : plan_of(sql)) {
      SCOPED_TRACE(std::string(sql) + " -> " + detail);
      EXPECT_EQ(detail.rfind("SCAN", 0), std::string::npos);
    }
  }
}

// SQLite never sees what follows the first ';' of a text, so a trace cannot
// check these two; their bytes are pinned here.
TEST(DetectorSql, InsertTextsKeepTheirTrailingBlank) {
  EXPECT_STREQ(kInsertHistory,
               "INSERT OR REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
               "?, ? ); ");
  EXPECT_STREQ(kInsertModelParams, "INSERT OR REPLACE INTO DBSCAN_MODEL_PARAMS  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ? ); ");
}

TEST_F(SchemaTest, QueueRefusesAKeyWithANulByte) {
  Statement st(db.handle, "INSERT INTO DATA_TO_PROCESS (BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, "
                          "SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, NUM_FILES, IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, "
                          "KB_TRANSFERRED, START_TIME, END_TIME, TOTAL_TIME, DEDUP_RATE, DESTINATION_STORAGE_NAME, "
                          "STREAM_NUMBER, ASSET_ID, UNIQUE_KEY) VALUES ('b', 1, 'c', 'p', 't', 's', 'n', 'a', 1, 1, "
                          "1, 1, 1, 1, 1, 1, 1, 'stu', 0, 'vm', CAST(? AS TEXT))");
  const char key[] = {'k', '1', '\0', 'x'};
  sqlite3_bind_blob(st.get_compiled_statement(), 1, key, sizeof key, SQLITE_STATIC);
  EXPECT_THROW(db.execute_query_prepared(st), sqlite_exception);
  EXPECT_EQ(count("DATA_TO_PROCESS"), 0);
  queue_job("k\xc3\xa9-multibyte", 1);  // ordinary UTF-8 keys are fine
  EXPECT_EQ(count("DATA_TO_PROCESS"), 1);
}

TEST_F(SchemaTest, HistoryKeepsAJobWhoseFeatureIsNotANumber) {
  // SQLite stores a NaN bound as a double as NULL.
  auto binds = history_binds("k1", 100, 1);
  binds[9] = std::nan("");
  execute(kInsertHistory, binds);
  Rows rows;
  db.read_data("SELECT typeof(IMAGE_SIZE) AS t FROM HIST_DATA", rows);
  EXPECT_TRUE(rows[0]["t"] == "null");
}

TEST_F(SchemaTest, HistoryInsertTakesTheJobOffTheQueueInTheSameStatement) {
  queue_job("k1", 100);
  queue_job("k2", 100);
  execute(kInsertHistory, history_binds("k1", 100, 1));
  Rows rows;
  db.read_data("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS", rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["UNIQUE_KEY"] == "k2");
}

TEST_F(SchemaTest, AnomalyReportMarksTheJobProcessedInTheSameStatement) {
  queue_job("k1", 100);
  execute(kInsertAnomaly, {std::string("42_100"), std::string("{}"), 0, std::string("k1"), std::string("client1"), 5});
  Rows rows;
  db.read_data("SELECT PROCESSED_STATUS FROM DATA_TO_PROCESS", rows);
  EXPECT_TRUE(rows[0]["PROCESSED_STATUS"] == "1");
}
