// The accepted outcome (history insert and queue delete) and the look-ups
// behind the validation rules: last backup time and user-confirmed rows.
#include <cmath>
#include <limits>

#include "model/DBScanModelImpl.h"
#include "tests/support/ServiceTestFixture.h"

namespace {

class ValidationTest : public ServiceTestFixture {
 protected:
  const std::string kInsertHistory =
      "INSERT OR REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";
  const std::string kDeletePending = "DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ? ";
  const std::string kLastBackup =
      "SELECT MAX(BACKUP_TIME) FROM HIST_DATA WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
      "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
      "SCHEDULE_NAME            = ? AND  DESTINATION_STORAGE_NAME = ? AND  ASSET_ID                 = ? ";

  static Rows confirmed(const std::vector<int>& markers) {
    Rows rows;
    for (int marker : markers) {
      Row row;
      row["USER_IDENTIFIED_CLUSTER"] = Value(marker);
      rows.push_back(row);
    }
    return rows;
  }

  DBScan model{1.0, 3, 2};
};

}  // namespace

TEST_F(ValidationTest, ValidObservationMovesTheJobFromQueueToHistory) {
  Row record = job("k1", "vm1", {{"USER_IDENTIFIED_CLUSTER", "-1"}, {"STREAM_NUMBER", "3"}});
  queue(record);
  queue(job("k2"));
  trace_sql();
  service->update_valid_observation(record);
  EXPECT_EQ(traced, (std::vector<std::string>{as_compiled(kInsertHistory), kDeletePending}));
  EXPECT_EQ(count("DATA_TO_PROCESS"), 1);
  Rows rows = query("SELECT * FROM HIST_DATA");
  ASSERT_EQ(rows.size(), 1u);
  const Row& h = rows[0];
  const std::pair<const char*, const char*> expected[] = {
      {"BACKUP_ID", "img"},         {"BACKUP_TIME", "1000000"},  {"CLIENT", "c1"},
      {"POLICY", "p1"},             {"POLICY_TYPE", "Standard"}, {"SCHEDULE_TYPE", "FULL"},
      {"SCHEDULE_NAME", "daily"},   {"APP_TYPE", "app"},         {"NUM_FILES", "100"},
      {"IMAGE_SIZE", "2048.0"},     {"JOB_ID", "42"},            {"PARENT_JOB_ID", "41"},
      {"KB_TRANSFERRED", "1024.0"}, {"START_TIME", "999000"},    {"END_TIME", "999600"},
      {"TOTAL_TIME", "600"},        {"DEDUP_RATE", "2.5"},       {"MODE", "1"},
      {"USER_IDENTIFIED_CLUSTER", "-1"}, {"DESTINATION_STORAGE_NAME", "stu1"}, {"STREAM_NUMBER", "3"},
      {"ASSET_ID", "vm1"},          {"UNIQUE_KEY", "k1"}};
  for (const auto& [column, value] : expected) {
    EXPECT_EQ(std::string(h.at(column)), value) << column;
  }
}

TEST_F(ValidationTest, HistoryCellsAreConvertedToTheirBoundTypes) {
  Row record = job("k1", "vm1", {{"NUM_FILES", "12.9"}, {"IMAGE_SIZE", "7"}, {"JOB_ID", "0042"}});
  record.erase("DEDUP_RATE");
  service->update_valid_observation(record);
  Rows rows = query(
      "SELECT NUM_FILES, typeof(NUM_FILES) AS t1, IMAGE_SIZE, typeof(IMAGE_SIZE) AS t2, JOB_ID, DEDUP_RATE, "
      "typeof(DEDUP_RATE) AS t3 FROM HIST_DATA");
  EXPECT_TRUE(rows[0]["NUM_FILES"] == "12");
  EXPECT_TRUE(rows[0]["t1"] == "integer");
  EXPECT_TRUE(rows[0]["IMAGE_SIZE"] == "7.0");
  EXPECT_TRUE(rows[0]["t2"] == "real");
  EXPECT_TRUE(rows[0]["JOB_ID"] == "42");
  EXPECT_TRUE(rows[0]["DEDUP_RATE"] == "0.0");
  EXPECT_TRUE(rows[0]["t3"] == "real");
}

TEST_F(ValidationTest, NumbersBeyondThirtyTwoBitsAreStoredTruncated) {
  service->update_valid_observation(job("k1", "vm1", {{"BACKUP_TIME", "4294967297"}}));
  EXPECT_TRUE(query("SELECT BACKUP_TIME FROM HIST_DATA")[0]["BACKUP_TIME"] == "1");
}

TEST_F(ValidationTest, RepeatingTheValidObservationReplacesTheHistoryRow) {
  service->update_valid_observation(job("k1"));
  service->update_valid_observation(job("k1", "vm1", {{"NUM_FILES", "7"}}));
  EXPECT_EQ(count("HIST_DATA"), 1);
  EXPECT_TRUE(query("SELECT NUM_FILES FROM HIST_DATA")[0]["NUM_FILES"] == "7");
}

TEST_F(ValidationTest, FailedHistoryInsertLeavesTheJobQueued) {
  queue(job("k1"));
  sql("DROP TABLE HIST_DATA");
  EXPECT_THROW(service->update_valid_observation(job("k1")),
               Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception);
  EXPECT_EQ(count("DATA_TO_PROCESS"), 1);
}

TEST_F(ValidationTest, LastBackupIsTheNewestOfTheSameStorage) {
  history_rows(job("a"), 5, "a");
  history_rows(job("b", "vm1", {{"DESTINATION_STORAGE_NAME", "stu2"}}), 9, "b");
  trace_sql();
  EXPECT_EQ(service->get_last_backup_for_anomaly_detected_backup(job("k"), 1), 5);
  EXPECT_EQ(traced, (std::vector<std::string>{kLastBackup}));
}

TEST_F(ValidationTest, WithoutTheFullFeatureSetOnlyStorageNaCounts) {
  history_rows(job("a"), 5, "a");
  history_rows(job("b", "vm1", {{"DESTINATION_STORAGE_NAME", "NA"}}), 3, "b");
  EXPECT_EQ(service->get_last_backup_for_anomaly_detected_backup(job("k"), 0), 3);
  EXPECT_EQ(service->get_last_backup_for_anomaly_detected_backup(job("k"), 2), 3);
}

TEST_F(ValidationTest, WorkloadWithoutHistoryReadsTheNullMaximumAsZero) {
  EXPECT_EQ(service->get_last_backup_for_anomaly_detected_backup(job("k"), 1), 0);
  EXPECT_TRUE(log_lines().empty());
}

TEST_F(ValidationTest, ReadFailureIsLoggedAndGivesMinusOne) {
  // A history that fails while it is read: the view overflows on its row.
  sql("DROP TABLE HIST_DATA");
  sql("CREATE VIEW HIST_DATA AS SELECT 'c1' AS CLIENT, 'p1' AS POLICY, 'Standard' AS POLICY_TYPE, 'app' AS APP_TYPE, "
      "'FULL' AS SCHEDULE_TYPE, 'daily' AS SCHEDULE_NAME, 'stu1' AS DESTINATION_STORAGE_NAME, 'vm1' AS ASSET_ID, "
      "abs(-9223372036854775807 - 1) AS BACKUP_TIME");
  EXPECT_EQ(service->get_last_backup_for_anomaly_detected_backup(job("k"), 1), -1);
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "<16> dbscan_detection: Could not get last known backup time for client - c1, policy - p1.");
}

TEST_F(ValidationTest, PrepareFailureOfTheLastBackupLookupPropagates) {
  sql("DROP TABLE HIST_DATA");
  EXPECT_THROW(service->get_last_backup_for_anomaly_detected_backup(job("k"), 1),
               Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception);
}

TEST_F(ValidationTest, EmptyTrainingSetKeepsTheAnomaly) {
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), Rows{}, {{0.0}}, 1.0, model), 1);
}

TEST_F(ValidationTest, RowsWithoutAUserVerdictAreSkipped) {
  const DetectionService::Matrix matrix{{0.0}, {0.0}, {0.0}};
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({-1, -1}), matrix, 1.0, model), 1);
  EXPECT_TRUE(log_lines().empty());
}

TEST_F(ValidationTest, MarkerZeroCountsAsUserIdentified) {
  const DetectionService::Matrix matrix{{0.0}, {0.5}};
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({0}), matrix, 1.0, model), 0);
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "<16> dbscan_detection: Found a match for this anomaly with user identified cluster.");
}

TEST_F(ValidationTest, DistanceExactlyEpsIsAMatch) {
  const DetectionService::Matrix matrix{{0.0, 0.0}, {3.0, 4.0}};
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({1}), matrix, 5.0, model), 0);
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({1}), matrix,
                                                                std::nextafter(5.0, 0.0), model),
            1);
}

TEST_F(ValidationTest, NanDistanceNeverMatches) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const DetectionService::Matrix matrix{{nan}, {0.0}};
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({1}), matrix, 1e300, model), 1);
}

TEST_F(ValidationTest, FirstMatchEndsTheSearch) {
  // Training row i is matrix row i + 1: the far confirmed row comes first,
  // the near one second, a third would match too.
  const DetectionService::Matrix matrix{{0.0}, {10.0}, {0.5}, {0.1}};
  EXPECT_EQ(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({1, 1, 1}), matrix, 1.0, model), 0);
  EXPECT_EQ(log_lines().size(), 1u);
}

TEST_F(ValidationTest, UnequalRowsMakeTheDistanceThrow) {
  const DetectionService::Matrix matrix{{0.0, 1.0}, {0.0}};
  EXPECT_THROW(service->check_anomaly_with_user_identified_cluster(job("k"), confirmed({1}), matrix, 1.0, model),
               std::runtime_error);
}
