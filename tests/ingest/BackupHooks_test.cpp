// The shipped hooks' promises when something goes wrong: the backup's own
// exit status always comes back, an ingest that fails or hangs is said on
// standard error and cut short, and a hook that cannot make its temporary
// file still runs the backup.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>

#include "tests/ingest/BackupScenario.h"

namespace tsanomaly_test {
namespace {

class BackupHooksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(dir.file("data").c_str(), 0700), 0);
    TempDir::write(dir.file("data/a"), "some data");
    setenv("BORG_BASE_DIR", dir.file("borg-home").c_str(), 1);
    setenv("BORG_PASSPHRASE", "", 1);
    setenv("BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK", "yes", 1);
    setenv("TSANOMALY_DB", dir.file("anomaly.db").c_str(), 1);
    setenv("TSANOMALYCTL", TSANOMALYCTL_PATH, 1);
    unsetenv("TSANOMALY_INGEST_TIMEOUT");
    ASSERT_EQ(run_program({TSANOMALYCTL_PATH, "init", dir.file("anomaly.db")}), 0);
    ASSERT_EQ(run_program({"/usr/bin/borg", "init", "-e", "none", dir.file("repo")}), 0);
  }

  // Before the next test's folder is made in the system's temporary folder.
  void TearDown() override { unsetenv("TMPDIR"); }

  int borg_backup(std::string* err) {
    return run_program({BackupScenario::hook("borg-backup"), dir.file("repo") + "::a-" + std::to_string(++archives),
                        dir.file("data")},
                       err);
  }

  TempDir dir;
  int archives = 0;
};

TEST_F(BackupHooksTest, AFailedBorgRunKeepsItsStatusAndIsNamedAsSkipped) {
  std::string err;
  EXPECT_EQ(run_program({BackupScenario::hook("borg-backup"), dir.file("no-repo") + "::a", dir.file("data")}, &err), 2);
  EXPECT_NE(err.find("skipped: empty: no borg --json output"), std::string::npos) << err;
  EXPECT_NE(err.find("0 jobs queued, 0 already queued, 1 skipped"), std::string::npos) << err;
}

TEST_F(BackupHooksTest, AnIngestThatFailsLeavesTheBackupsStatus) {
  setenv("TSANOMALY_DB", dir.file("missing/anomaly.db").c_str(), 1);
  std::string err;
  EXPECT_EQ(borg_backup(&err), 0);
  EXPECT_NE(err.find("borg-backup: the run was not queued for the anomaly detector (tsanomalyctl ingest exited 1); "
                     "the backup's own status is kept"),
            std::string::npos)
      << err;
}

TEST_F(BackupHooksTest, AnIngestThatHangsIsCutShort) {
  const std::string stuck = dir.file("stuck-ingest");
  TempDir::write(stuck, "#!/bin/sh\nexec sleep 30\n");
  ASSERT_EQ(chmod(stuck.c_str(), 0700), 0);
  setenv("TSANOMALYCTL", stuck.c_str(), 1);
  setenv("TSANOMALY_INGEST_TIMEOUT", "1", 1);
  const auto start = std::chrono::steady_clock::now();
  std::string err;
  EXPECT_EQ(borg_backup(&err), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(25));
  EXPECT_NE(err.find("tsanomalyctl ingest exited 124"), std::string::npos) << err;
}

TEST_F(BackupHooksTest, EveryHookLeavesNoTemporaryFileBehind) {
  const std::string temporary = dir.file("tmp");
  ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
  setenv("TMPDIR", temporary.c_str(), 1);
  std::string err;
  EXPECT_EQ(borg_backup(&err), 0) << err;
  EXPECT_EQ(run_program({BackupScenario::hook("borgmatic-backup"), "-c", dir.file("none.yaml")}), 1);
  EXPECT_NE(run_program({BackupScenario::hook("duplicity-backup"), "--no-encryption", dir.file("data"), "nosuchscheme://x"}), 0);
  EXPECT_EQ(run_program({"/usr/bin/find", temporary, "-mindepth", "1", "-quit", "-print"}, nullptr, &err), 0);
  EXPECT_EQ(err, "");
}

TEST_F(BackupHooksTest, WithoutATemporaryFileTheBackupStillRuns) {
  setenv("TMPDIR", dir.file("missing").c_str(), 1);
  std::string err;
  EXPECT_EQ(borg_backup(&err), 0);
  EXPECT_NE(err.find("borg-backup: no temporary file; running borg without the detector"), std::string::npos) << err;
  EXPECT_EQ(run_program({"/usr/bin/borg", "info", dir.file("repo") + "::a-1"}), 0);
}

TEST_F(BackupHooksTest, BorgmaticAndDuplicityKeepTheirOwnFailureStatus) {
  std::string err;
  const int borgmatic = run_program({"/usr/bin/borgmatic", "create", "--json", "-c", dir.file("none.yaml")});
  ASSERT_NE(borgmatic, 0);
  EXPECT_EQ(run_program({BackupScenario::hook("borgmatic-backup"), "-c", dir.file("none.yaml")}, &err), borgmatic);
  EXPECT_NE(err.find("1 skipped"), std::string::npos) << err;
  const std::vector<std::string> arguments = {"--no-encryption", "--archive-dir", dir.file("cache"), dir.file("data"),
                                              "nosuchscheme://target"};
  std::vector<std::string> direct = {"/usr/bin/duplicity"};
  direct.insert(direct.end(), arguments.begin(), arguments.end());
  const int duplicity = run_program(direct);
  ASSERT_NE(duplicity, 0);
  std::vector<std::string> hooked = {BackupScenario::hook("duplicity-backup")};
  hooked.insert(hooked.end(), arguments.begin(), arguments.end());
  EXPECT_EQ(run_program(hooked, &err), duplicity);
  EXPECT_NE(err.find("no duplicity \"[ Backup Statistics ]\" block"), std::string::npos) << err;
}

}  // namespace
}  // namespace tsanomaly_test
