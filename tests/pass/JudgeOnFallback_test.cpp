// JUDGE_ON_FALLBACK_FEATURES: a job whose own storage has too little
// history, judged on the two features of the fallback training set across
// storages instead of being retried for ever.
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <string>

#include "schema/DetectorSql.h"
#include "tests/pass/PassFixture.h"

namespace pass_test {
namespace {

class JudgeOnFallback : public PassFixture {
 protected:
  // The workload's history is all on stu2; the job goes to stu1.
  void moved_workload(int rows = 40, const Cells& overrides = {}) {
    usual_history(rows, Cells{{"DESTINATION_STORAGE_NAME", "stu2"}} + overrides);
  }
  void setting(const std::string& value, const std::string& more = "") {
    write_ini("[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=" + value + "\n" + more);
  }
  bool ran(const std::string& sql) { return std::find(traced.begin(), traced.end(), sql) != traced.end(); }
};

TEST_F(JudgeOnFallback, OffOrAbsentTheJobStaysPendingAsBefore) {
  for (const char* value : {"0", "2", "yes"}) {
    setting(value);
    moved_workload(40);
    queue(job("k1"));
    testing::internal::CaptureStdout();
    pass();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nUnexpected error during anomaly detection.") << value;
    EXPECT_EQ(queue_state(), Strings{"k1:0"}) << value;
    sql("DELETE FROM DATA_TO_PROCESS; DELETE FROM HIST_DATA; DELETE FROM DBSCAN_MODEL_PARAMS");
  }
}

TEST_F(JudgeOnFallback, AUsualJobIsJudgedOnTwoFeaturesAndMovesIntoTheHistory) {
  setting("1");
  moved_workload();
  model("0.5");
  queue(job("k1"));
  testing::internal::CaptureStdout();
  const Strings lines = pass();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(contains(lines, info("Detection using historical data.")));
  EXPECT_TRUE(contains(lines, info("Anomaly not detected.")));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(history_row("k1")["DESTINATION_STORAGE_NAME"], "stu1");
  EXPECT_EQ(history_row("k1")["MODE"], "1");
}

TEST_F(JudgeOnFallback, AFarJobIsReportedWithTheFallbackPayload) {
  setting("1");
  moved_workload();
  model("0.5");
  queue(job("k1", kFarFeatures));
  trace_sql();
  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  json_t* attributes = json_object_get(root, "Attributes");
  EXPECT_EQ(json_member(attributes, "summary"), "Anomaly image size,Backup files count");
  EXPECT_EQ(json_member(attributes, "count"), "2");
  EXPECT_EQ(json_member(attributes, "anomalyTimeTaken"), "<missing>");
  EXPECT_EQ(json_member(attributes, "storageName"), "stu1");
  json_decref(root);
  // The previous backup is looked up across storages, as the training set.
  EXPECT_TRUE(ran(detector_sql::kSelectLastBackupTimeAnyStorage));
  EXPECT_FALSE(ran(detector_sql::kSelectLastBackupTime));
}

TEST_F(JudgeOnFallback, TheLongGapRuleCountsFromTheLastBackupOnAnyStorage) {
  setting("1");
  // The workload's last backup, on stu2, was 60 s before the job: no gap.
  moved_workload(40, {{"BACKUP_TIME", "1000000000"}});
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", "1000000060"}}));
  EXPECT_TRUE(contains(pass(), info("Anomaly detected for job 42")));

  // A year and a second after it: the rule accepts the job.
  queue(job("k2", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(1000000000 + 31536001)}, {"JOB_ID", "43"}}));
  EXPECT_TRUE(contains(pass(), info("Valid record considered since current backup done after 365 days.")));
  EXPECT_EQ(history_row("k2")["JOB_ID"], "43");
}

TEST_F(JudgeOnFallback, FallbackFeaturesAllDisabledLeaveTheJobPending) {
  setting("1", "[DISABLE_FEATURE_PER_POLICY_TYPE]\nStandard=num_files,image_size\n");
  moved_workload();
  model("0.5");
  queue(job("k1"));
  EXPECT_TRUE(contains(pass(), info("All features are disabled for policy type = Standard. Detection aborted.")));
  EXPECT_EQ(queue_state(), Strings{"k1:0"});
}

TEST_F(JudgeOnFallback, AJobWithItsOwnStoragesHistoryIsJudgedOnFiveFeaturesAsEver) {
  setting("1");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  trace_sql();
  EXPECT_TRUE(contains(pass(), info("Anomaly detected for job 42")));
  EXPECT_TRUE(ran(detector_sql::kSelectLastBackupTime));
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  EXPECT_NE(json_member(json_object_get(root, "Attributes"), "anomalyTimeTaken"), "<missing>");
  json_decref(root);
}

}  // namespace
}  // namespace pass_test
