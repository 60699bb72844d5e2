// The limits a pass applies whatever the configuration says: a single-stream
// job's training set, and the long-gap rule's day count for values that are
// not a positive number.
#include <gtest/gtest.h>

#include <string>

#include "tests/pass/PassFixture.h"

namespace pass_test {
namespace {

using DetectionPassLimits = PassFixture;

TEST_F(DetectionPassLimits, SingleStreamJobTrainsOnAtMost365RowsWhateverTheMaximum) {
  // 500 rows of history, 400 required: the training set stops at 365, both
  // the storage-specific one and the fallback, so there is not enough data.
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=400\nMAX_OBSERVATIONS_FOR_TRAINING=1000\n");
  usual_history(500);
  model("0.5");
  queue(job("k1"));
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));
  EXPECT_EQ(queue_state(), Strings{});

  // 365 required: the capped set is just enough and the job is judged.
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=365\nMAX_OBSERVATIONS_FOR_TRAINING=1000\n");
  queue(job("k2", {{"JOB_ID", "43"}, {"BACKUP_TIME", "501"}}));
  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Completed getting training data set for detection."))) << lines.size();
  EXPECT_TRUE(contains(lines, info("Anomaly not detected.")));
}

// DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY that is negative, empty or not a
// number means a year: a gap of exactly 365 days is not long enough, one
// second more is.
class DetectionPassDayCount : public PassFixture, public ::testing::WithParamInterface<const char*> {};

TEST_P(DetectionPassDayCount, MeansAYearAtTheExactThresholdAndOneSecondPast) {
  write_ini(std::string("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=") + GetParam() + "\n");
  usual_history(40);  // the last backup at 40
  model("0.5");
  constexpr int kYear = 365 * 86400;
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + kYear)}}));
  queue(job("k2", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + kYear + 1)}, {"JOB_ID", "43"}}));

  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
  EXPECT_TRUE(contains(lines, info("Valid record considered since current backup done after 365 days.")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(history_row("k2")["JOB_ID"], "43");
}

INSTANTIATE_TEST_SUITE_P(NotAPositiveNumber, DetectionPassDayCount, ::testing::Values("-3", "", "abc"));

}  // namespace
}  // namespace pass_test
