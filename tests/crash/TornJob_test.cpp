// A job whose second write fails. Accepting a job is an insert into
// HIST_DATA and a delete from DATA_TO_PROCESS; reporting one is an insert
// into ANOMALY_DATA and an update that marks the queue row processed. The
// schema's triggers do the queue's part inside the insert itself, so a
// SIGKILL -- the random kills of CrashSafety_test -- can no longer fall
// between the two, and a failure of the queue's part (here a planted trigger
// that aborts it, as another connection holding the write lock past the busy
// timeout would) undoes the insert with it: the job is still pending, with
// no history row and no report, and the next pass judges it afresh.
// Whatever happened, the job must end with exactly one outcome, the one it
// was given.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/crash/QueueAudit.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace {

using reliability::audit;
using reliability::AuditResult;
using reliability::Expectations;
using reliability::SqliteFile;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

class TornJob : public ::testing::Test {
 protected:
  // One workload with 60 days of daily history and one pending job.
  void SetUp() override {
    ChildProcess sim({TSANOMALYCTL_PATH, "simulate", dir.file("anomaly.db"), "--workloads", "1", "--days", "60",
                      "--pending", "1", "--anomalies", "0", "--seed", "9"});
    ASSERT_EQ(ChildProcess::run(sim, std::chrono::seconds(60)), 0) << sim.out() << sim.err();
    db = std::make_unique<SqliteFile>(dir.file("anomaly.db"));
    job = db->text("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS");
    expected.jobs = {job};
    expected.base_history_rows = db->number("SELECT COUNT(*) FROM HIST_DATA");
  }

  // One pass; returns what it printed.
  std::string pass() {
    ChildProcess detect({TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(), "-database_file_name",
                         "anomaly.db", "-log_path", dir.path()});
    EXPECT_EQ(ChildProcess::run(detect, std::chrono::minutes(2)), 0) << detect.out() << detect.err();
    return detect.out();
  }

  std::string log() const { return TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")); }

  // The job comes 400 days after the workload's last backup, twenty times
  // its usual size: an outlier that the long-gap rule accepts.
  void make_long_gap_outlier() {
    db->exec(
        "UPDATE DATA_TO_PROCESS SET BACKUP_TIME = BACKUP_TIME + 400 * 86400, START_TIME = START_TIME + 400 * "
        "86400, END_TIME = END_TIME + 400 * 86400, IMAGE_SIZE = IMAGE_SIZE * 20, NUM_FILES = NUM_FILES * 20, "
        "KB_TRANSFERRED = KB_TRANSFERRED * 20");
  }

  // The job is an outlier that no rule explains: it is reported.
  void make_plain_outlier() {
    db->exec(
        "UPDATE DATA_TO_PROCESS SET IMAGE_SIZE = IMAGE_SIZE * 20, NUM_FILES = NUM_FILES * 20, "
        "KB_TRANSFERRED = KB_TRANSFERRED * 20");
  }

  void stop_before(const char* what) {
    db->exec(std::string("CREATE TRIGGER torn BEFORE ") + what +
             " ON DATA_TO_PROCESS BEGIN SELECT RAISE(ABORT, 'stopped here'); END");
  }
  void resume() { db->exec("DROP TRIGGER torn"); }

  AuditResult settled() { return audit(*db, expected, true); }
  long long reports() { return db->number("SELECT COUNT(*) FROM ANOMALY_DATA"); }
  long long history_rows_of_job() {
    return db->number("SELECT COUNT(*) FROM HIST_DATA WHERE UNIQUE_KEY = '" + job + "'");
  }

  TempDir dir;
  std::unique_ptr<SqliteFile> db;
  std::string job;
  Expectations expected;
};

// Without interruption the long-gap job is accepted: the reference outcome.
TEST_F(TornJob, LongGapOutlierIsAcceptedIntoTheHistory) {
  make_long_gap_outlier();
  pass();
  EXPECT_NE(log().find("Valid record considered since current backup done after 365 days."), std::string::npos);
  const AuditResult state = settled();
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.in_history, 1);
  EXPECT_EQ(reports(), 0);
}

// Had its history row stayed while it remained queued, the retry would have
// judged the job against a history holding itself: 0 days after the last
// backup, the long-gap rule would no longer accept it and it would be
// reported. The failed queue delete takes the history insert back with it.
TEST_F(TornJob, LongGapOutlierWhoseQueueDeleteFailsStaysPendingAndIsAcceptedOnRetry) {
  make_long_gap_outlier();
  stop_before("DELETE");
  pass();
  EXPECT_NE(log().find("Valid record considered since current backup done after 365 days."), std::string::npos);
  AuditResult state = audit(*db, expected, false);
  ASSERT_TRUE(state.ok()) << state.describe();
  ASSERT_EQ(state.pending, 1) << "the trigger did not stop the job's queue delete";
  EXPECT_EQ(history_rows_of_job(), 0) << "the history insert outlived the failed queue delete";

  resume();
  pass();
  state = settled();
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.in_history, 1);
  EXPECT_EQ(reports(), 0) << "the accepted job was reported on retry";
}

// The same failure for an ordinary job: the retry makes the move.
TEST_F(TornJob, NormalJobWhoseQueueDeleteFailsStaysPendingAndEndsInTheHistoryOnce) {
  stop_before("DELETE");
  pass();
  AuditResult state = audit(*db, expected, false);
  ASSERT_TRUE(state.ok()) << state.describe();
  ASSERT_EQ(state.pending, 1) << "the trigger did not stop the job's queue delete";
  EXPECT_EQ(history_rows_of_job(), 0) << "the history insert outlived the failed queue delete";

  resume();
  pass();
  state = settled();
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.in_history, 1);
  EXPECT_EQ(reports(), 0);
}

// An anomaly whose queue row cannot be marked processed: the report is taken
// back with it, and the retry reports the job once.
TEST_F(TornJob, AnomalyWhoseMarkFailsStaysPendingAndIsReportedOnceOnRetry) {
  make_plain_outlier();
  stop_before("UPDATE");
  pass();
  EXPECT_NE(log().find("Anomaly detected for job"), std::string::npos) << log();
  AuditResult state = audit(*db, expected, false);
  ASSERT_TRUE(state.ok()) << state.describe();
  ASSERT_EQ(state.pending, 1) << "the trigger did not stop the job's mark";
  EXPECT_EQ(reports(), 0) << "the report outlived the failed mark";

  resume();
  pass();
  state = settled();
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.reported, 1);
  EXPECT_EQ(reports(), 1);
}

}  // namespace
