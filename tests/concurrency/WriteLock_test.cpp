// Another connection holds the database's write lock while a pass runs.
// A lock shorter than the busy timeout (10 s by default) makes the pass
// wait and succeed. A lock held longer makes each refused write fail the way
// the service defines -- a verdict left for the next pass with "Error
// occurred during incorporating user feedback into training set.", a job
// judged but not written with "Unexpected error during anomaly detection."
// on standard output, a failure outside the judgement with the level-16
// "Error while doing detection - ..." that ends the pass -- and loses
// nothing: the next pass completes the work.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "platform/StopSignal.h"
#include "tests/concurrency/JobFactory.h"
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
using Clock = std::chrono::steady_clock;

constexpr const char* kPassError =
    "<16> dbscan_detection: Error while doing detection - sqlite query execution failed.";
constexpr const char* kFeedbackError =
    "<2> dbscan_detection: Error occurred during incorporating user feedback into training set.";
constexpr const char* kJobError = "Unexpected error during anomaly detection.";

std::vector<std::string> detect_command(const TempDir& dir) {
  return {TSANOMALYCTL_PATH,     "detect",     "-database_location", dir.path(),
          "-database_file_name", "anomaly.db", "-log_path",          dir.path()};
}

void simulate(const TempDir& dir, const char* workloads, const char* pending, const char* anomalies) {
  ChildProcess sim({TSANOMALYCTL_PATH, "simulate", dir.file("anomaly.db"), "--workloads", workloads, "--days", "60",
                    "--pending", pending, "--anomalies", anomalies, "--seed", "3"});
  ASSERT_EQ(ChildProcess::run(sim, std::chrono::seconds(60)), 0) << sim.out() << sim.err();
}

std::string log_of(const TempDir& dir) { return TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")); }

int occurrences(const std::string& text, const std::string& what) {
  int n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

Expectations queued_jobs(const SqliteFile& db) {
  Expectations expected;
  for (auto& row : db.rows("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS")) expected.jobs.insert(row[0]);
  expected.base_history_rows = db.number("SELECT COUNT(*) FROM HIST_DATA");
  return expected;
}

// The product's writer takes the lock for 2 s, well inside the detector's
// 10 s: the pass waits for it and judges every job without an error.
TEST(WriteLock, ShorterThanTheBusyTimeoutMakesThePassWait) {
  TempDir dir;
  simulate(dir, "3", "6", "0");
  SqliteFile other(dir.file("anomaly.db"));
  const Expectations expected = queued_jobs(other);

  other.exec("BEGIN IMMEDIATE");
  ChildProcess pass(detect_command(dir));
  pass.start();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  other.exec("COMMIT");
  const int status = pass.wait(std::chrono::minutes(2));
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << pass.out() << pass.err();

  const AuditResult state = audit(other, expected, true);
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.in_history + state.reported, 6);
  EXPECT_TRUE(reliability::failure_lines(log_of(dir) + "\n" + pass.out()).empty()) << log_of(dir) << pass.out();
}

// The real tool with its default timeout: the first write of the pass (the
// calibration of the first job's workload) waits 10 s, fails and ends the
// pass; the jobs stay pending and the next pass judges them all.
TEST(WriteLock, LongerThanTheBusyTimeoutFailsThePassAndTheNextPassCompletesIt) {
  TempDir dir;
  simulate(dir, "3", "6", "0");
  SqliteFile other(dir.file("anomaly.db"));
  const Expectations expected = queued_jobs(other);

  other.exec("BEGIN IMMEDIATE");
  const auto start = Clock::now();
  ChildProcess locked(detect_command(dir));
  ASSERT_EQ(ChildProcess::run(locked, std::chrono::minutes(2)), 0) << locked.out() << locked.err();
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  other.exec("ROLLBACK");

  const std::string first_log = log_of(dir);
  EXPECT_EQ(occurrences(first_log, kPassError), 1) << first_log;
  // The refusal came from the busy timeout, not from an immediate SQLITE_BUSY.
  EXPECT_GE(waited.count(), 9500) << "the pass gave up after " << waited.count() << " ms";
  AuditResult state = audit(other, expected, false);
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.pending, 6);

  ChildProcess next(detect_command(dir));
  ASSERT_EQ(ChildProcess::run(next, std::chrono::minutes(2)), 0) << next.out() << next.err();
  state = audit(other, expected, true);
  EXPECT_TRUE(state.ok()) << state.describe();
  EXPECT_EQ(state.in_history + state.reported, 6);
  const std::string second_log = log_of(dir).substr(first_log.size());
  EXPECT_TRUE(reliability::failure_lines(second_log + "\n" + next.out()).empty()) << second_log << next.out();
}

// In process, with a short timeout so that every refused write fails fast:
// a verdict, three jobs whose workloads are calibrated (their write is part
// of the judgement), then a job whose workload must be calibrated first
// (that write is not), then one more job the pass never reaches.
TEST(WriteLock, EveryRefusedWriteIsLoggedAsDefinedAndLosesNothing) {
  TempDir dir;
  simulate(dir, "4", "8", "25");
  {
    ChildProcess first(detect_command(dir));
    ASSERT_EQ(ChildProcess::run(first, std::chrono::minutes(2)), 0) << first.out();
  }
  SqliteFile other(dir.file("anomaly.db"));
  // The jobs the first pass reported are still queued; those it accepted
  // now count as history.
  Expectations expected = queued_jobs(other);
  const std::string anomaly = other.text("SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA ORDER BY 1 LIMIT 1");
  ASSERT_EQ(other.number("SELECT COUNT(*) FROM DBSCAN_MODEL_PARAMS"), 4);
  {
    reliability::JobFactory factory(other, "lock-", 5, 0);
    sqlite3_stmt* insert = reliability::JobFactory::prepare_insert(other.handle());
    for (int i = 0; i < 5; ++i) expected.jobs.insert(factory.insert_next(insert));
    sqlite3_finalize(insert);
  }
  // Jobs 1..4 go to workloads 1..4 in the factory's order; the 4th
  // workload loses its model.
  other.exec(
      "DELETE FROM DBSCAN_MODEL_PARAMS WHERE (CLIENT, POLICY, SCHEDULE_NAME, DESTINATION_STORAGE_NAME, ASSET_ID) = "
      "(SELECT CLIENT, POLICY, SCHEDULE_NAME, DESTINATION_STORAGE_NAME, ASSET_ID FROM DATA_TO_PROCESS "
      "WHERE UNIQUE_KEY = 'lock-4')");
  ASSERT_EQ(other.number("SELECT COUNT(*) FROM DBSCAN_MODEL_PARAMS"), 3);
  other.exec("INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES ('" + anomaly + "', 1)");
  expected.false_positive_verdicts.insert(anomaly);
  AuditResult state = audit(other, expected, false);
  ASSERT_TRUE(state.ok()) << state.describe();
  ASSERT_EQ(state.pending, 5);

  StopSignal::reset();
  int log_status = 0;
  open_debug_log(dir.path(), "inprocess", "inprocess", 0644, &log_status);
  ASSERT_EQ(log_status, 0);
  {
    DetectionService service(dir.path(), "anomaly.db", 0.0, 3.0, "");
    service.set_busy_timeout(200);

    other.exec("BEGIN IMMEDIATE");
    testing::internal::CaptureStdout();
    service.do_detection();
    const std::string out = testing::internal::GetCapturedStdout();
    other.exec("ROLLBACK");

    const std::string log = TempDir::read(dir.file("inprocess/inprocess.log"));
    EXPECT_EQ(occurrences(log, kFeedbackError), 1) << log;
    EXPECT_EQ(occurrences(out, kJobError), 3) << out;
    EXPECT_EQ(occurrences(log, kPassError), 1) << log;
    EXPECT_EQ(occurrences(log, "Calling DBScan for detection for job"), 3) << log;
    state = audit(other, expected, false);
    EXPECT_TRUE(state.ok()) << state.describe();
    EXPECT_EQ(state.pending, 5);
    EXPECT_EQ(state.verdicts_left, 1);
    EXPECT_EQ(state.moved_by_feedback, 0);

    testing::internal::CaptureStdout();
    service.do_detection();
    const std::string next_out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(next_out, "");
    const std::string next_log = TempDir::read(dir.file("inprocess/inprocess.log")).substr(log.size());
    EXPECT_TRUE(reliability::failure_lines(next_log).empty()) << next_log;
    state = audit(other, expected, true);
    EXPECT_TRUE(state.ok()) << state.describe();
    EXPECT_EQ(state.moved_by_feedback, 1);
    EXPECT_EQ(state.verdicts_left, 0);
    EXPECT_EQ(state.in_history + state.reported + state.moved_by_feedback,
              static_cast<long long>(expected.jobs.size()));
  }
  close_debug_log();
}

}  // namespace
