// The borg and borgmatic formats end to end: the real Borg 1.2 and
// borgmatic 1.7 back up a churning folder through the shipped hooks, and
// the built detector judges what they queued.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/ingest/BackupScenario.h"
#include "tests/ingest/ScenarioChecks.h"

namespace tsanomaly_test {
namespace {

// The environment every Borg run of these tests shares: a repository without
// encryption, Borg's cache and keys inside the test's folder, and the hooks
// pointed at the test's database and the built tsanomalyctl.
void borg_environment(const BackupScenario& scenario) {
  setenv("BORG_BASE_DIR", scenario.dir().file("borg-home").c_str(), 1);
  setenv("BORG_PASSPHRASE", "", 1);
  setenv("BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK", "yes", 1);
  setenv("TSANOMALY_DB", scenario.database().c_str(), 1);
  setenv("TSANOMALYCTL", TSANOMALYCTL_PATH, 1);
  unsetenv("TSANOMALY_INGEST_OPTIONS");
}

std::string repository(const BackupScenario& scenario) { return scenario.dir().file("repo"); }

void init_repository(const BackupScenario& scenario) {
  std::string err;
  ASSERT_EQ(run_program({"/usr/bin/borg", "init", "-e", "none", repository(scenario)}, &err), 0) << err;
}

// Each day through borg-backup, the archive dated to the day with --timestamp.
class BorgScenario : public BackupScenario {
 public:
  BorgScenario() {
    borg_environment(*this);
    init_repository(*this);
  }

 protected:
  void back_up(std::int64_t day_start) override {
    const std::string time = iso_utc(day_start);
    run_hook_queuing_one_job({hook("borg-backup"), "--timestamp", time, repository(*this) + "::web01-data-" + time,
                              folder().path()});
  }
};

// The last days through borgmatic-backup, the day given to Borg through
// borgmatic's extra options for create; the history before them through
// borg-backup into the same repository and workload (borgmatic runs borg,
// and a borgmatic run costs twice a borg run's time).
class BorgmaticScenario : public BorgScenario {
 public:
  static constexpr int kBorgmaticDays = 6;  // three ordinary days, the attack, the day after, the deletion

 protected:
  void back_up(std::int64_t day_start) override {
    if (++days_ <= kOrdinaryDays + 3 - kBorgmaticDays) return BorgScenario::back_up(day_start);
    const std::string config = dir().file("borgmatic.yaml");
    std::ofstream(config, std::ios::trunc) << "location:\n    source_directories:\n        - " << folder().path()
                                           << "\n    repositories:\n        - " << repository(*this)
                                           << "\nstorage:\n    archive_name_format: 'web01-data-{now}'\n"
                                           << "    extra_borg_options:\n        create: --timestamp "
                                           << iso_utc(day_start) << "\n";
    run_hook_queuing_one_job({hook("borgmatic-backup"), "-c", config});
  }

 private:
  int days_ = 0;
};

// `borg info --json` of the whole repository, in a file of the test's folder.
std::string info_output(const BackupScenario& scenario) {
  std::string out, err;
  EXPECT_EQ(run_program({"/usr/bin/borg", "info", "--json", "--glob-archives", "*", repository(scenario)}, &err, &out), 0)
      << err;
  const std::string file = scenario.dir().file("info.json");
  std::ofstream(file, std::ios::trunc) << out;
  return file;
}

TEST(BorgIngestTest, RansomwareAndMassDeletionAreReportedAndOrdinaryDaysAccepted) {
  BorgScenario scenario;
  expect_attacks_reported_and_ordinary_days_accepted(scenario.run());
  // The repository's own list names the same archives: none is queued again.
  const int archives = BackupScenario::kOrdinaryDays + 3;
  EXPECT_NE(scenario.ingest("borg", info_output(scenario))
                .find("0 jobs queued, " + std::to_string(archives) + " already queued, 0 skipped"),
            std::string::npos);
}

TEST(BorgmaticIngestTest, RansomwareAndMassDeletionAreReportedAndOrdinaryDaysAccepted) {
  BorgmaticScenario scenario;
  expect_attacks_reported_and_ordinary_days_accepted(scenario.run());
  // Every archive of the repository was queued once, by one hook or the other.
  const int archives = BackupScenario::kOrdinaryDays + 3;
  EXPECT_NE(scenario.ingest("borg", info_output(scenario))
                .find("0 jobs queued, " + std::to_string(archives) + " already queued, 0 skipped"),
            std::string::npos);
}

}  // namespace
}  // namespace tsanomaly_test
