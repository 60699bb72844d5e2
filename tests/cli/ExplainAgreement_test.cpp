// explain agrees with the pass: every pending job of simulated domains is
// explained first, then one real pass runs, and each job must end as
// predicted, an anomaly with the predicted payload.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"
#include "replay/JudgementReplay.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

// What a domain's configuration and data exercise besides plain jobs.
constexpr const char* kIniBody =
    "[EXCLUDE_CLIENTS]\nCLIENT_NAME=web-prod-003\n"
    "[EXCLUDE_CLIENT_POLICY]\nfs-corp-002=WIN-FileServers-Gold\n"
    "[DISABLE_FEATURE_PER_POLICY_TYPE]\nOracle=dedup_rate\nVMware=num_files,image_size\n"
    "[META_DATA]\nLOG_MODEL_DATA=1\n";
// A tenth of the workloads moved storage ten days before their pending job;
// some history jobs were confirmed by users.
constexpr const char* kReshape =
    "CREATE TEMP TABLE moved AS SELECT DISTINCT CLIENT, POLICY, SCHEDULE_NAME, ASSET_ID FROM DATA_TO_PROCESS "
    "ORDER BY 1, 2, 3, 4;"
    "DELETE FROM moved WHERE rowid % 10 != 0;"
    "CREATE TEMP TABLE cut AS SELECT MIN(BACKUP_TIME) - 10 * 86400 AS t FROM DATA_TO_PROCESS;"
    "UPDATE HIST_DATA SET DESTINATION_STORAGE_NAME = DESTINATION_STORAGE_NAME || '-new' "
    "WHERE BACKUP_TIME >= (SELECT t FROM cut) AND (CLIENT, POLICY, SCHEDULE_NAME, ASSET_ID) IN (SELECT * FROM moved);"
    "UPDATE DATA_TO_PROCESS SET DESTINATION_STORAGE_NAME = DESTINATION_STORAGE_NAME || '-new' "
    "WHERE (CLIENT, POLICY, SCHEDULE_NAME, ASSET_ID) IN (SELECT * FROM moved);"
    "UPDATE HIST_DATA SET USER_IDENTIFIED_CLUSTER = 1 WHERE rowid % 53 = 0;";

struct Actual {
  bool in_history = false;
  bool queued = false;
  int status = 0;
  std::string payload;
};

class ExplainAgreementTest : public ::testing::TestWithParam<int> {
 protected:
  std::string db() const { return dir.file("anomaly.db"); }

  void build_domain(int workloads, int seed, bool judge_on_fallback) {
    ChildProcess simulate({TSANOMALYCTL_PATH, "simulate", db(), "--workloads", std::to_string(workloads), "--days",
                           "60", "--pending", std::to_string(workloads), "--anomalies", "10", "--streams", "--seed",
                           std::to_string(seed)});
    ASSERT_EQ(ChildProcess::run(simulate, std::chrono::seconds(60)), 0) << simulate.err();
    DBAccess(db(), SQLITE_OPEN_READWRITE).execute_query(kReshape);
    TempDir::write(ini(), std::string(kIniBody) + "[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=" +
                              (judge_on_fallback ? "1" : "0") + "\n");
  }
  std::string ini() const { return dir.file("detector.ini"); }

  void run_pass() {
    ChildProcess detect({TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(), "-database_file_name",
                         "anomaly.db", "-eps", "0.5", "-log_path", dir.path(), "-config_file", ini()});
    ASSERT_EQ(ChildProcess::run(detect, std::chrono::minutes(5)), 0) << detect.err();
  }

  std::map<std::string, Actual> state_after() {
    std::map<std::string, Actual> state;
    DBAccess after(db(), SQLITE_OPEN_READONLY);
    Rows rows;
    after.read_data("SELECT UNIQUE_KEY FROM HIST_DATA", rows);
    for (auto& row : rows) state[row["UNIQUE_KEY"].text()].in_history = true;
    rows.clear();
    after.read_data("SELECT UNIQUE_KEY, PROCESSED_STATUS FROM DATA_TO_PROCESS", rows);
    for (auto& row : rows) {
      Actual& actual = state[row["UNIQUE_KEY"].text()];
      actual.queued = true;
      actual.status = row["PROCESSED_STATUS"];
    }
    rows.clear();
    after.read_data("SELECT DETECTION_KEY, ANOMALY_PAYLOAD FROM ANOMALY_DATA", rows);
    for (auto& row : rows) state[row["DETECTION_KEY"].text()].payload = row["ANOMALY_PAYLOAD"].text();
    return state;
  }

  TempDir dir;
};

// The payload's attributes, the detection time left out (it is the clock's).
std::string attributes_of(const std::string& payload) {
  json_t* root = json_loads(payload.c_str(), 0, nullptr);
  char* text = json_dumps(json_object_get(root, "Attributes"), JSON_SORT_KEYS | JSON_COMPACT);
  std::string attributes = text != nullptr ? text : "<none>";
  free(text);
  json_decref(root);
  return attributes;
}

void expect_agreement(const std::string& key, const Judgement& predicted, const Actual& actual) {
  if (predicted.outcome == ReplayedOutcome::history) {
    EXPECT_TRUE(actual.in_history && !actual.queued) << key << ": " << predicted.reason;
  } else if (predicted.outcome == ReplayedOutcome::anomaly) {
    ASSERT_FALSE(actual.payload.empty()) << key << ": predicted an anomaly, the pass reported none";
    EXPECT_EQ(attributes_of(actual.payload), attributes_of(predicted.payload)) << key;
    EXPECT_TRUE(actual.queued && actual.status == 1) << key;
  } else if (predicted.outcome == ReplayedOutcome::processed) {
    EXPECT_TRUE(actual.queued && actual.status == 1 && actual.payload.empty()) << key;
  } else {
    EXPECT_EQ(predicted.outcome, ReplayedOutcome::pending) << key;
    EXPECT_TRUE(actual.queued && actual.status == 0 && !actual.in_history) << key << ": " << predicted.reason;
  }
}

TEST_P(ExplainAgreementTest, EveryPendingJobEndsAsExplained) {
  const bool judge_on_fallback = GetParam() == 1;
  build_domain(judge_on_fallback ? 300 : 250, judge_on_fallback ? 31 : 32, judge_on_fallback);
  ReplaySettings settings;
  settings.config_file = ini();
  settings.eps = 0.5;
  std::map<std::string, Judgement> predicted;
  std::map<std::string, int> outcomes;
  for (const std::string& key : pending_job_keys(db(), 100000)) {
    predicted[key] = replay_judgement(db(), key, settings);
    ++outcomes[outcome_name(predicted[key].outcome)];
  }
  run_pass();
  const std::map<std::string, Actual> actual = state_after();
  for (const auto& [key, judgement] : predicted) expect_agreement(key, judgement, actual.at(key));

  std::string counts;
  for (const auto& [outcome, n] : outcomes) counts += outcome + " " + std::to_string(n) + "  ";
  std::cout << "[ explained  ] " << predicted.size() << " jobs: " << counts << "\n";
  EXPECT_GE(outcomes["anomaly"], 1);
  EXPECT_GE(outcomes["history"], 100);
  if (!judge_on_fallback) {
    EXPECT_GE(outcomes["pending"], 1);  // the moved workloads' jobs
  }
}

INSTANTIATE_TEST_SUITE_P(JudgeOnFallback, ExplainAgreementTest, ::testing::Values(0, 1));

}  // namespace
