// A concurrent writer: while one-pass runs of `tsanomalyctl detect` follow
// each other back to back, a second process (concurrent_queue_writer) queues
// 100 jobs a second in short transactions and answers reported anomalies
// with feedback rows. Afterwards every queued job has exactly one outcome:
//   - in HIST_DATA and no longer queued (judged normal), or
//   - still queued with PROCESSED_STATUS 1 and named by exactly one
//     ANOMALY_DATA row (reported), or
//   - when a false-positive verdict was written for its anomaly: in HIST_DATA
//     with USER_IDENTIFIED_CLUSTER 1, its queue row gone, the verdict
//     consumed; the ANOMALY_DATA row stays and names the moved job.
// Feedback rows with FEEDBACK 0, or naming no anomaly, are left alone. No
// pass logs a storage error, and the writer is never refused.
//
// Runs 60 s in the normal build. Under AddressSanitizer every pass is several
// times slower and the CI runs both builds, so the sanitizer build writes for
// 20 s; TSANOMALY_CONCURRENT_SECONDS overrides either.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/concurrency/JobFactory.h"
#include "tests/crash/QueueAudit.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

extern char** environ;

namespace {

using reliability::audit;
using reliability::AuditResult;
using reliability::Expectations;
using reliability::SqliteFile;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;
using Clock = std::chrono::steady_clock;

#ifdef TSANOMALY_SANITIZER_BUILD
constexpr int kDefaultSeconds = 20;
#else
constexpr int kDefaultSeconds = 60;
#endif
constexpr int kJobsPerSecond = 100;
constexpr int kJobsPerTransaction = 5;
constexpr int kMaxDrainPasses = 50;

// The writer, started with posix_spawn so that the test can poll for its end
// while it runs passes; killed if the test leaves early.
class Writer {
 public:
  Writer(const std::vector<std::string>& argv, const std::string& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Writer() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  bool started() const { return pid_ > 0; }
  // True once it has ended; exit_code is then set.
  bool ended() {
    if (pid_ <= 0) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    pid_ = -1;
    exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return true;
  }
  int exit_code = -1;

 private:
  pid_t pid_ = -1;
};

struct Ledger {
  long long jobs = 0;  // keys cw-1 .. cw-jobs were committed
  bool done = false;
  std::set<std::string> verdicts;
  std::set<std::string> kept;
};

Ledger read_ledger(const std::string& path) {
  Ledger ledger;
  std::ifstream in(path);
  for (std::string word; in >> word;) {
    if (word == "jobs") {
      long long first = 0;
      in >> first >> ledger.jobs;
    } else if (word == "verdict") {
      std::string id;
      in >> id;
      ledger.verdicts.insert(id);
    } else if (word == "keep") {
      std::string id;
      in >> id;
      ledger.kept.insert(id);
    } else if (word == "done") {
      long long total = 0;
      in >> total;
      ledger.done = total == ledger.jobs;
    }
  }
  return ledger;
}

std::vector<std::string> detect_command(const TempDir& dir) {
  return {TSANOMALYCTL_PATH,     "detect",     "-database_location", dir.path(),
          "-database_file_name", "anomaly.db", "-log_path",          dir.path()};
}

int seconds_to_write() {
  const char* text = std::getenv("TSANOMALY_CONCURRENT_SECONDS");
  return text != nullptr && *text != '\0' ? std::atoi(text) : kDefaultSeconds;
}

TEST(ConcurrentWriter, JobsQueuedDuringBackToBackPassesAreJudgedExactlyOnce) {
  const int seconds = seconds_to_write();
  TempDir dir;
  const std::string db_path = dir.file("anomaly.db");
  {
    ChildProcess sim({TSANOMALYCTL_PATH, "simulate", db_path, "--workloads", "60", "--days", "120", "--pending", "0",
                      "--seed", "7"});
    ASSERT_EQ(ChildProcess::run(sim, std::chrono::seconds(120)), 0) << sim.out() << sim.err();
  }
  Expectations expected;
  {
    SqliteFile db(db_path);
    expected.base_history_rows = db.number("SELECT COUNT(*) FROM HIST_DATA");
  }

  const std::string ledger_path = dir.file("writer.ledger");
  Writer writer({QUEUE_WRITER_PATH, db_path, ledger_path, std::to_string(seconds), std::to_string(kJobsPerSecond),
                 std::to_string(kJobsPerTransaction), "11"},
                dir.file("writer.out"));
  ASSERT_TRUE(writer.started());

  const auto started = Clock::now();
  int passes_while_writing = 0;
  std::string pass_output;
  while (!writer.ended()) {
    ChildProcess pass(detect_command(dir));
    ASSERT_EQ(ChildProcess::run(pass, std::chrono::minutes(10)), 0) << pass.out() << pass.err();
    pass_output += pass.out() + pass.err();
    ++passes_while_writing;
  }
  const double writing_s = std::chrono::duration<double>(Clock::now() - started).count();
  const std::string writer_out = TempDir::read(dir.file("writer.out"));
  ASSERT_EQ(writer.exit_code, 0) << writer_out;
  EXPECT_NE(writer_out.find("0 failed and retried"), std::string::npos)
      << "the writer was refused a write lock for longer than its timeout:\n"
      << writer_out;

  const Ledger ledger = read_ledger(ledger_path);
  ASSERT_TRUE(ledger.done) << "the writer's ledger is incomplete";
  for (long long i = 1; i <= ledger.jobs; ++i) expected.jobs.insert(reliability::JobFactory::key_of("cw-", i));
  expected.false_positive_verdicts = ledger.verdicts;
  expected.other_verdict_rows = ledger.kept;

  AuditResult state;
  long long backlog = 0;
  {
    SqliteFile db(db_path);
    state = audit(db, expected, false);
    backlog = state.pending;
  }
  ASSERT_TRUE(state.ok()) << "when the writer stopped:\n" << state.describe();

  // Drain: passes until the queue is empty and every verdict is folded in.
  int drain_passes = 0;
  do {
    ASSERT_LT(drain_passes, kMaxDrainPasses) << "the queue does not drain";
    ChildProcess pass(detect_command(dir));
    ASSERT_EQ(ChildProcess::run(pass, std::chrono::minutes(10)), 0) << pass.out() << pass.err();
    pass_output += pass.out() + pass.err();
    ++drain_passes;
    SqliteFile db(db_path);
    state = audit(db, expected, false);
    ASSERT_TRUE(state.ok()) << "after drain pass " << drain_passes << ":\n" << state.describe();
  } while (state.pending > 0 || state.verdicts_left > 0);

  SqliteFile db(db_path);
  const AuditResult final_state = audit(db, expected, true);
  EXPECT_TRUE(final_state.ok()) << final_state.describe();
  const long long inserted = ledger.jobs;
  const long long processed = final_state.in_history + final_state.reported + final_state.moved_by_feedback;
  EXPECT_EQ(processed, inserted);
  EXPECT_EQ(final_state.moved_by_feedback, static_cast<long long>(ledger.verdicts.size()));
  EXPECT_GT(inserted, 0);

  const std::vector<std::string> errors =
      reliability::failure_lines(TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")) + "\n" + pass_output);
  EXPECT_TRUE(errors.empty()) << errors.size() << " storage error lines, the first: " << errors.front();

  std::cout << "concurrent writer: " << writer_out << "  wrote for " << writing_s << " s with " << passes_while_writing
            << " passes back to back, backlog " << backlog << " jobs, then " << drain_passes << " drain passes\n"
            << "  jobs inserted " << inserted << ", processed " << processed << " (" << final_state.in_history
            << " in history, " << final_state.reported << " reported, " << final_state.moved_by_feedback
            << " moved by a false-positive verdict), lost " << inserted - processed << "; feedback rows kept "
            << ledger.kept.size() << "; rows checked in the last audit " << final_state.rows_checked << "\n";
}

}  // namespace
