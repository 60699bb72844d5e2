// The shipped restic hook when something goes wrong: restic's own exit
// status always comes back, a failed ingest is reported and never changes
// it, and a hanging ingest is cut off.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/ingest/IngestFixture.h"

using tsanomaly_test::IngestFixture;

namespace {

class ResticHookFailureTest : public IngestFixture {
 protected:
  void SetUp() override {
    IngestFixture::SetUp();
    if (access("/usr/bin/restic", X_OK) != 0) GTEST_SKIP() << "restic is not installed";
    std::filesystem::create_directory(dir.file("data"));
    write("data/file", "some bytes to back up");
    setenv("RESTIC_REPOSITORY", dir.file("repo").c_str(), 1);
    setenv("RESTIC_PASSWORD", "test-only", 1);
    setenv("RESTIC_CACHE_DIR", dir.file("cache").c_str(), 1);
    setenv("TSANOMALY_DB", db.c_str(), 1);
    setenv("TSANOMALYCTL", TSANOMALYCTL_PATH, 1);
    unsetenv("TSANOMALY_INGEST_TIMEOUT");
    unsetenv("TMPDIR");
    ASSERT_EQ(program({"/usr/bin/restic", "init", "--quiet"}).exit_code, 0);
  }
  Run hook() const { return program({RESTIC_HOOK_PATH, dir.file("data")}); }
};

}  // namespace

TEST_F(ResticHookFailureTest, FailedBackupKeepsResticsStatusAndIsNamedAsFailed) {
  setenv("RESTIC_PASSWORD", "wrong", 1);
  const Run direct = program({"/usr/bin/restic", "backup", "--json", dir.file("data")});
  ASSERT_NE(direct.exit_code, 0);
  const Run run = hook();
  EXPECT_EQ(run.exit_code, direct.exit_code);
  EXPECT_NE(run.err.find("skipped"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("was not queued"), std::string::npos) << run.err;
  EXPECT_EQ(count("DATA_TO_PROCESS"), "0");
}

TEST_F(ResticHookFailureTest, IngestFailureDoesNotChangeTheBackupsStatus) {
  setenv("TSANOMALY_DB", dir.file("missing.db").c_str(), 1);
  const Run run = hook();
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_NE(run.out.find("\"message_type\":\"summary\""), std::string::npos) << "restic's output not passed on";
  EXPECT_NE(run.err.find("no database"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("not queued for the anomaly detector (tsanomalyctl ingest exited 1)"), std::string::npos)
      << run.err;
}

TEST_F(ResticHookFailureTest, HangingIngestIsCutOff) {
  const std::string sleeper = write("sleeper", "#!/bin/sh\nexec sleep 60\n");
  ASSERT_EQ(chmod(sleeper.c_str(), 0755), 0);
  setenv("TSANOMALYCTL", sleeper.c_str(), 1);
  setenv("TSANOMALY_INGEST_TIMEOUT", "1", 1);
  const auto started = std::chrono::steady_clock::now();
  const Run run = hook();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_NE(run.err.find("tsanomalyctl ingest exited 124"), std::string::npos) << run.err;
  // Not a timing assertion: the sleeper would take 60 s, far past any load.
  EXPECT_LT(seconds.count(), 50);
}

// Without a temporary folder restic fails too; the hook still runs it and
// answers its status, as restic alone would.
TEST_F(ResticHookFailureTest, WithoutATemporaryFileResticStillRunsAndAnswers) {
  setenv("TMPDIR", dir.file("no-such-folder").c_str(), 1);
  const Run direct = program({"/usr/bin/restic", "backup", "--json", dir.file("data")});
  const Run run = hook();
  EXPECT_EQ(run.exit_code, direct.exit_code);
  EXPECT_NE(run.err.find("running restic without the anomaly detector"), std::string::npos) << run.err;
  EXPECT_EQ(count("DATA_TO_PROCESS"), "0");
}

TEST_F(ResticHookFailureTest, LeavesNoTemporaryFileBehind) {
  const std::string tmp = dir.file("tmp");
  ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0);
  setenv("TMPDIR", tmp.c_str(), 1);
  ASSERT_EQ(hook().exit_code, 0);
  EXPECT_EQ(count("DATA_TO_PROCESS"), "1");
  EXPECT_TRUE(std::filesystem::is_empty(tmp));
}

// The installed restic's own snapshot list: queued when its snapshots carry
// a summary (restic 0.17 and later), each skipped with the reason otherwise.
TEST_F(ResticHookFailureTest, RealSnapshotListIsQueuedOrSkippedWithTheReason) {
  ASSERT_EQ(program({"/usr/bin/restic", "backup", "--quiet", dir.file("data")}).exit_code, 0);
  const Run list = program({"/usr/bin/restic", "snapshots", "--json"});
  ASSERT_EQ(list.exit_code, 0) << list.err;
  const Run run = ingest("restic", {write("snapshots.json", list.out)});
  if (list.out.find("\"summary\"") != std::string::npos) {
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(count("DATA_TO_PROCESS"), "1");
  } else {
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.out, "0 jobs queued, 0 already queued, 1 skipped\n");
    EXPECT_NE(run.err.find("carries no summary (restic records one since 0.17)"), std::string::npos) << run.err;
  }
}
