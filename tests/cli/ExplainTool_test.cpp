// tsanomalyctl explain, run as the operator runs it: what it says about one
// job, that it never writes, and how it refuses what it cannot explain.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/JsonChecks.h"
#include "tests/support/TempDir.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

class ExplainToolTest : public ::testing::Test {
 protected:
  // One workload per job; 20 % of the queued jobs anomalous.
  void SetUp() override {
    EXPECT_EQ(ctl({"simulate", db(), "--workloads", "30", "--days", "60", "--pending", "30", "--anomalies", "20",
                   "--seed", "5"}),
              0)
        << out;
  }

  int ctl(std::vector<std::string> args) {
    args.insert(args.begin(), TSANOMALYCTL_PATH);
    ChildProcess child(args);
    const int code = ChildProcess::run(child, std::chrono::seconds(60));
    out = child.out();
    err = child.err();
    return code;
  }
  std::string db() const { return dir.file("anomaly.db"); }
  std::string first_key(const std::string& where) {
    DBAccess file(db(), SQLITE_OPEN_READONLY);
    Rows rows;
    file.read_data("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS WHERE " + where + " ORDER BY rowid LIMIT 1", rows);
    return rows.empty() ? "" : rows[0]["UNIQUE_KEY"].text();
  }
  static std::string bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
  }

  TempDir dir;
  std::string out, err;
};

TEST_F(ExplainToolTest, APendingAnomalyIsExplainedAsTheNextPassWouldReportIt) {
  const std::string key = first_key(
      "UNIQUE_KEY IN (SELECT UNIQUE_KEY FROM SIMULATED_ANOMALY WHERE KIND = 'size_spike')");
  ASSERT_FALSE(key.empty());
  ASSERT_EQ(ctl({"explain", db(), key, "--json", "-eps", "0.5"}), 0) << err;
  const auto root = tsanomaly_test::parse(out);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(tsanomaly_test::string_member(root.get(), "outcome"), "anomaly") << out;
  EXPECT_NE(json_object_get(root.get(), "payload"), nullptr);
  EXPECT_NE(json_object_get(root.get(), "clustering"), nullptr);
  EXPECT_NE(json_object_get(root.get(), "training"), nullptr);

  ASSERT_EQ(ctl({"explain", db(), key, "-eps", "0.5"}), 0) << err;
  EXPECT_NE(out.find("Outcome: anomaly - Anomaly detected for job"), std::string::npos) << out;
  EXPECT_NE(out.find("Nearest cluster: "), std::string::npos) << out;
  EXPECT_NE(out.find("OUTSIDE"), std::string::npos) << out;
}

TEST_F(ExplainToolTest, ItNeverWritesTheDatabase) {
  // A pass first, so the file has reported jobs, models and a log.
  ASSERT_EQ(ctl({"detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path",
                 dir.path()}),
            0)
      << err;
  const std::string before = bytes_of(db());
  const std::string wal_before = bytes_of(db() + "-wal");
  for (const char* where : {"PROCESSED_STATUS = 1", "1"}) {
    const std::string key = first_key(where);
    ASSERT_FALSE(key.empty()) << where;
    EXPECT_EQ(ctl({"explain", db(), key}), 0) << err;
  }
  EXPECT_EQ(bytes_of(db()), before);
  EXPECT_EQ(bytes_of(db() + "-wal"), wal_before);
}

TEST_F(ExplainToolTest, AReadOnlyFileOfAnotherUserCanBeExplained) {
  if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "needs root and setpriv";
  const std::string key = first_key("1");
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(db().c_str(), 0444), 0);
  ASSERT_EQ(ctl({"explain", db(), key}), 0);  // as root, to have the file's WAL settled
  const std::string before = bytes_of(db());
  ChildProcess child({"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", TSANOMALYCTL_PATH,
                      "explain", db(), key, "--json"});
  EXPECT_EQ(ChildProcess::run(child, std::chrono::seconds(60)), 0) << child.err();
  EXPECT_NE(child.out().find("\"outcome\""), std::string::npos) << child.out() << child.err();
  EXPECT_EQ(bytes_of(db()), before);
}

TEST_F(ExplainToolTest, WhatCannotBeExplainedIsRefusedWithAMessage) {
  EXPECT_EQ(ctl({"explain", db(), "no-such-job"}), 1);
  EXPECT_NE(err.find("no job 'no-such-job' in DATA_TO_PROCESS"), std::string::npos) << err;

  TempDir::write(dir.file("notes.txt"), "not a database at all\n");
  EXPECT_EQ(ctl({"explain", dir.file("notes.txt"), "k"}), 1);
  EXPECT_NE(err.find("is not an SQLite database"), std::string::npos) << err;

  DBAccess(dir.file("other.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).execute_query("CREATE TABLE t(x)");
  EXPECT_EQ(ctl({"explain", dir.file("other.db"), "k"}), 1);
  EXPECT_NE(err.find("is not a detector database"), std::string::npos) << err;

  EXPECT_EQ(ctl({"explain", dir.file("missing.db"), "k"}), 1);
  EXPECT_NE(err.find("cannot read database"), std::string::npos) << err;

  EXPECT_EQ(ctl({"explain", db()}), 2);
  EXPECT_EQ(ctl({"explain", db(), "k", "-min_samples", "two"}), 2);
}

TEST_F(ExplainToolTest, StatusAndExplainNameTheJobsTheNextPassCannotJudge) {
  // Five workloads move to new storage: their jobs get the two-feature set.
  DBAccess(db(), SQLITE_OPEN_READWRITE)
      .execute_query("UPDATE DATA_TO_PROCESS SET DESTINATION_STORAGE_NAME = 'new-pool' WHERE rowid <= 5");
  const std::string ini = dir.file("detector.ini");
  TempDir::write(ini, "[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=0\n");
  ASSERT_EQ(ctl({"status", db(), "-config_file", ini}), 0) << err;
  EXPECT_NE(out.find("Cannot be judged            5 of the pending jobs\n"), std::string::npos) << out;
  EXPECT_NE(out.find("unequal feature sets      5  (moved storage: set [ANOMALY_MODEL_SETTINGS] "
                     "JUDGE_ON_FALLBACK_FEATURES=1)"),
            std::string::npos)
      << out;
  ASSERT_EQ(ctl({"explain", db(), first_key("rowid = 1"), "-config_file", ini, "--json"}), 0) << err;
  const auto root = tsanomaly_test::parse(out);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(tsanomaly_test::string_member(root.get(), "outcome"), "pending");
  EXPECT_NE(tsanomaly_test::string_member(root.get(), "hint").find("JUDGE_ON_FALLBACK_FEATURES=1"), std::string::npos);

  // Judged on two features, unless both are disabled for the policy type.
  TempDir::write(ini, "[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=1\n");
  ASSERT_EQ(ctl({"status", db(), "-config_file", ini}), 0) << err;
  EXPECT_EQ(out.find("Cannot be judged"), std::string::npos) << out;
  Rows moved;
  DBAccess(db(), SQLITE_OPEN_READONLY)
      .read_data("SELECT POLICY_TYPE, COUNT(*) AS N FROM DATA_TO_PROCESS WHERE rowid <= 5 GROUP BY POLICY_TYPE "
                 "ORDER BY N DESC LIMIT 1",
                 moved);
  TempDir::write(ini, "[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=1\n[DISABLE_FEATURE_PER_POLICY_TYPE]\n" +
                          moved[0]["POLICY_TYPE"].text() + "=num_files,image_size\n");
  ASSERT_EQ(ctl({"status", db(), "-config_file", ini}), 0) << err;
  EXPECT_NE(out.find("every feature disabled    " + moved[0]["N"].text() + "  (see [DISABLE_FEATURE_PER_POLICY_TYPE]"),
            std::string::npos)
      << out;
}

}  // namespace
