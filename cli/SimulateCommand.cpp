#include "cli/SimulateCommand.h"

#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <iostream>
#include <string>

#include "storage/DBAccess.h"
#include "simulator/BackupSimulator.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

const CommandArgs::Syntax kSimulateSyntax{
    {{.name = "--workloads",
      .value_name = "N",
      .help = "workloads, 1-20000 (default 50)",
      .whole = WholeRange{1, BackupSimulator::kMaxWorkloads}},
     {.name = "--days",
      .value_name = "D",
      .help = "days of history, 1-3650 (default 120); the detector\njudges a workload's jobs once it has 30 days",
      .whole = WholeRange{1, BackupSimulator::kMaxDays}},
     {.name = "--pending",
      .value_name = "P",
      .help = "jobs to queue, 0-1000000 (default 50)",
      .whole = WholeRange{0, BackupSimulator::kMaxPending}},
     {.name = "--anomalies",
      .value_name = "PCT",
      .help = "percent of the queued jobs made anomalous (default 5)",
      .whole = WholeRange{0, 100}},
     {.name = "--streams", .help = "make some workloads multi-stream: asset NA, streams 1-4"},
     {.name = "--stream-share",
      .value_name = "PCT",
      .help = "percent of the workloads that are, with --streams\n(default 20; 100 makes all)",
      .whole = WholeRange{0, 100}},
     {.name = "--seed",
      .value_name = "S",
      .help = "the same seed and options give the same data (default 1)",
      .whole = WholeRange{0, LLONG_MAX}}},
    1,
    1,
    {"DB"}};

const std::string kSimulateHelp =
    "usage: tsanomalyctl simulate DB [--workloads N] [--days D] [--pending P] [--anomalies PCT]\n"
    "                                [--streams] [--stream-share PCT] [--seed S]\n"
    "\n"
    "Fills DB (given the detector's schema when it has none) with synthetic backup\n"
    "history and a queue of pending jobs, to try the detector or to benchmark it.\n"
    "Each workload (client, policy, schedule, storage unit, asset) ran one job a\n"
    "day for D days, recorded in HIST_DATA with a mild trend, lighter weekends and\n"
    "day-to-day noise. P jobs are queued in DATA_TO_PROCESS for the days after\n"
    "that, one per workload per day, and PCT percent of them carry an injected\n"
    "anomaly: a size spike, a file-count collapse, a dedup-rate drop or a duration\n"
    "blow-up. Those are listed in SIMULATED_ANOMALY (UNIQUE_KEY, KIND), a table the\n"
    "detector never reads, so that its findings can be checked.\n"
    "\n" +
    options_help(kSimulateSyntax.options) +
    "\n"
    "DB must not hold jobs yet. Exit status: 0 filled, 1 DB could not be filled,\n"
    "2 bad arguments.\n";

namespace {

constexpr const char* kCommand = "simulate";

int usage_error(const std::string& message) { return CommandArgs::usage_error(kCommand, message); }

// Reads the options; a malformed or out-of-range value is recorded in args.
BackupSimulator::Settings read_settings(CommandArgs& args) {
  BackupSimulator::Settings s;
  s.workloads = static_cast<int>(args.integer("--workloads", s.workloads));
  s.days = static_cast<int>(args.integer("--days", s.days));
  s.pending = static_cast<int>(args.integer("--pending", s.pending));
  s.anomaly_percent = static_cast<double>(args.integer("--anomalies", 5));
  s.multi_stream = args.flag("--streams");
  s.stream_share_percent = static_cast<double>(args.integer("--stream-share", 20));
  s.seed = static_cast<std::uint64_t>(args.integer("--seed", static_cast<long long>(s.seed)));
  return s;
}

// What the option parser cannot see: combinations. "" when all is well.
std::string combination_problem(const CommandArgs& args, const BackupSimulator& simulator) {
  if (args.positional()[0].empty()) {
    return "DB must be a file path";
  }
  if (args.value("--stream-share") && !args.flag("--streams")) {
    return "--stream-share applies only with --streams";
  }
  if (simulator.pending_days() > BackupSimulator::kMaxDays) {
    return "--pending asks for " + std::to_string(simulator.pending_days()) +
           " days of queued jobs (one per workload per day), more than " +
           std::to_string(BackupSimulator::kMaxDays) + "; add workloads or queue fewer jobs";
  }
  return "";
}

// A bar on standard error for runs long enough to wait for, only when that is
// a terminal (logs and pipes stay clean), redrawn at most ten times a second.
class ProgressBar {
 public:
  explicit ProgressBar(long long total) : shown_(total > kWorthShowing && isatty(STDERR_FILENO) == 1) {}
  ~ProgressBar() {
    if (drawn_) std::cerr << "\n";
  }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void update(long long done, long long total) {
    const auto now = std::chrono::steady_clock::now();
    if (!shown_ || (drawn_ && done < total && now - last_drawn_ < std::chrono::milliseconds(100))) return;
    last_drawn_ = now;
    drawn_ = true;
    constexpr long long kWidth = 40;
    const long long filled = total > 0 ? kWidth * done / total : kWidth;
    std::cerr << "\r[" << std::string(static_cast<std::size_t>(filled), '#')
              << std::string(static_cast<std::size_t>(kWidth - filled), '.') << "] " << done << "/" << total
              << " rows" << std::flush;
  }

 private:
  static constexpr long long kWorthShowing = 50000;

  bool shown_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_drawn_;
};

void print_summary(const std::string& path, const BackupSimulator::Summary& summary, double seconds) {
  long long anomalies = 0;
  std::string kinds;
  for (int kind = 0; kind < BackupSimulator::kAnomalyKinds; ++kind) {
    anomalies += summary.anomalies[kind];
    const auto name = BackupSimulator::kind_name(static_cast<BackupSimulator::AnomalyKind>(kind));
    kinds += std::string(kind == 0 ? "" : ", ") + name + " " + std::to_string(summary.anomalies[kind]);
  }
  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.2f", seconds);
  std::cout << "Simulated " << summary.workloads << " workloads (" << summary.multi_stream_workloads
            << " multi-stream) into " << path << ": " << summary.history_rows << " history rows, "
            << summary.pending_jobs << " pending jobs, " << anomalies << " injected anomalies (" << kinds << ") in "
            << elapsed << " s\n";
}

}  // namespace

int run_simulate(int argc, char** argv) {
  CommandArgs args(argc, argv, kSimulateSyntax);
  const BackupSimulator simulator(read_settings(args));
  if (auto exit_code = args.help_or_usage_error(kCommand, kSimulateHelp)) return *exit_code;
  if (const std::string problem = combination_problem(args, simulator); !problem.empty()) {
    return usage_error(problem);
  }
  const std::string& path = args.positional()[0];
  const auto started = std::chrono::steady_clock::now();
  try {
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    BackupSimulator::Summary summary;
    {
      ProgressBar bar(simulator.total_rows());
      summary = simulator.fill(db, [&bar](long long done, long long total) { bar.update(done, total); });
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    print_summary(path, summary, elapsed.count());
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl " << kCommand << ": cannot fill '" << path << "': " << ErrorText::of(e) << "\n";
    return 1;
  } catch (...) {
    std::cerr << "tsanomalyctl " << kCommand << ": cannot fill '" << path << "': unexpected failure\n";
    return 1;
  }
  return 0;
}
