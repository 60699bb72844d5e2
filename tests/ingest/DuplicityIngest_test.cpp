// The duplicity format end to end: the real duplicity 0.8 backs up a
// churning folder through the shipped hook, and the built detector judges
// what it queued. Duplicity records the real time of each run and has no
// option to date one otherwise, so its days are seconds apart.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/ingest/BackupScenario.h"
#include "tests/ingest/ScenarioChecks.h"

namespace tsanomaly_test {
namespace {

class DuplicityScenario : public BackupScenario {
 public:
  DuplicityScenario() {
    setenv("TSANOMALY_DB", database().c_str(), 1);
    setenv("TSANOMALYCTL", TSANOMALYCTL_PATH, 1);
    unsetenv("TSANOMALY_INGEST_OPTIONS");
  }

  std::string target() const { return "file://" + dir().file("target"); }

 protected:
  void back_up(std::int64_t) override {
    run_hook_queuing_one_job({hook("duplicity-backup"), "--no-encryption", "--archive-dir", dir().file("cache"),
                              "--name", "data", folder().path(), target()});
  }
};

TEST(DuplicityIngestTest, RansomwareAndMassDeletionAreReportedAndOrdinaryDaysAccepted) {
  DuplicityScenario scenario;
  expect_attacks_reported_and_ordinary_days_accepted(scenario.run());
}

}  // namespace
}  // namespace tsanomaly_test
