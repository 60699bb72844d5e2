// End to end with the real Bacula: a Director, storage daemon and file
// daemon back up a changing folder day after day, the shipped RunScript hook
// queues every job, and detection passes judge them; the catalog backfill
// of the same jobs gives the same queue rows as the hook.
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/ingest/BaculaDomain.h"
#include "tests/ingest/DailyFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using tsanomaly_test::BaculaDomain;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::DailyFiles;
using tsanomaly_test::TempDir;

// Enough normal days for the detector to judge the last few: it accepts a
// workload's first 30 jobs unjudged.
constexpr int kNormalDays = 35;

void create_detector_database(const std::string& path) {
  DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  db.execute_query(anomaly_schema::anomaly_db_sql());
}

Rows query(const std::string& path, const std::string& sql) {
  DBAccess db(path, SQLITE_OPEN_READONLY);
  db.set_busy_timeout(10000);  // the hook may be writing
  Rows rows;
  db.read_data(sql, rows);
  return rows;
}

std::string cell(const Rows& rows, std::size_t row, const std::string& column) {
  return rows.at(row).at(column).text();
}

class BaculaIngest : public ::testing::Test {
 protected:
  void SetUp() override {
    create_detector_database(detector_db);
    create_detector_database(live_db);
    bacula.start();
    files.create(2000);
  }

  // The queue key of the catalog's newest job: what the hook queued last.
  std::string newest_job_key() {
    const Rows newest = query(bacula.catalog(), "SELECT Job FROM Job ORDER BY JobId DESC LIMIT 1");
    return "bacula:" + cell(newest, 0, "Job");
  }

  // One job, done when the hook has queued it into the last database it
  // writes (the RunScripts run in order).
  void backup(const std::string& level) {
    const std::size_t queued = ++jobs;
    bacula.run_job(level, [&] { return query(live_db, "SELECT 1 FROM DATA_TO_PROCESS").size() == queued; });
  }

  void detection_pass() {
    ChildProcess detect({TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(), "-database_file_name",
                         "detector.db", "-config_file", tsanomaly_test::source_dir() + "/etc/tsanomalydetect.ini",
                         "-log_path", dir.path()});
    ASSERT_EQ(ChildProcess::run(detect), 0) << detect.err();
  }

  // The payload summary of the anomaly reported for this job, or "" when
  // the job was not reported.
  std::string anomaly_summary(const std::string& key) {
    const Rows rows = query(detector_db, "SELECT json_extract(ANOMALY_PAYLOAD, '$.Attributes.summary') AS S "
                                         "FROM ANOMALY_DATA WHERE DETECTION_KEY = '" + key + "'");
    return rows.empty() ? "" : cell(rows, 0, "S");
  }

  TempDir dir;
  std::string detector_db = dir.file("detector.db");
  std::string live_db = dir.file("live.db");
  BaculaDomain bacula{dir.file("bacula"), {detector_db, live_db}};
  DailyFiles files{bacula.data()};
  std::size_t jobs = 0;
};

TEST_F(BaculaIngest, AttackDaysAreReportedNormalDaysAcceptedAndTheBackfillEqualsTheHook) {
  const auto begin = std::chrono::steady_clock::now();
  backup("Full");
  for (int day = 0; day < kNormalDays; ++day) {
    files.churn(60, 10, 10);
    backup("Incremental");
  }
  detection_pass();
  const Rows false_alarms = query(detector_db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA");
  EXPECT_LE(false_alarms.size(), 1u);
  EXPECT_EQ(query(detector_db, "SELECT 1 FROM HIST_DATA").size() + false_alarms.size(), kNormalDays + 1u);

  files.encrypt(0.6);
  backup("Incremental");
  const std::string ransomware = newest_job_key();
  detection_pass();
  const std::string ransomware_features = anomaly_summary(ransomware);
  EXPECT_NE(ransomware_features.find("Data transferred"), std::string::npos) << ransomware_features;

  files.delete_share(0.7);
  backup("Incremental");
  const std::string deletion = newest_job_key();
  detection_pass();
  const std::string deletion_features = anomaly_summary(deletion);
  EXPECT_NE(deletion_features.find("Backup files count"), std::string::npos) << deletion_features;

  files.churn(60, 10, 10);
  backup("Incremental");
  const std::string after = newest_job_key();
  detection_pass();
  EXPECT_EQ(anomaly_summary(after), "");
  EXPECT_EQ(query(detector_db, "SELECT 1 FROM HIST_DATA WHERE UNIQUE_KEY = '" + after + "'").size(), 1u);
  std::cout << "normal-day false alarms: " << false_alarms.size() << " of " << kNormalDays - 30 << " judged\n"
            << "ransomware day: " << ransomware_features << "\nmass-deletion day: " << deletion_features << "\n"
            << kNormalDays + 4 << " Bacula jobs and 4 passes in "
            << std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() << " s\n";

  // The catalog backfill of the same jobs: the rows the hook queued, key for key.
  const std::string backfill_db = dir.file("backfill.db");
  create_detector_database(backfill_db);
  ChildProcess backfill({TSANOMALYCTL_PATH, "ingest", backfill_db, "--format", "bacula-catalog", bacula.catalog()});
  ASSERT_EQ(ChildProcess::run(backfill), 0) << backfill.err();
  const std::string rows = "SELECT * FROM DATA_TO_PROCESS ORDER BY UNIQUE_KEY";
  const Rows live = query(live_db, rows);
  const Rows backfilled = query(backfill_db, rows);
  ASSERT_EQ(live.size(), kNormalDays + 4u);
  ASSERT_EQ(backfilled.size(), live.size());
  for (std::size_t i = 0; i < live.size(); ++i)
    for (const auto& [column, value] : live[i]) EXPECT_EQ(cell(backfilled, i, column), value.text()) << column;
}

}  // namespace
