// soak_runner: a long run of the detector in one process, the way the
// service lives for months. One DetectionService judges pass after pass
// while a second connection queues new jobs between passes (so the history
// grows all the time) and answers some anomalies with false-positive
// verdicts. The configuration is re-read every pass, the debug log is
// verbose and rotates. Every --report-every passes it prints its resident
// memory and its open file descriptors; at the end it audits the database
// (no job lost, none reported twice) and fails when a check fails, the debug
// log shows a failed pass, the descriptors grew, or the resident memory or
// the heap outside SQLite grew by more than their limits from the first
// report to the last.
//
// usage: soak_runner [--passes N] [--jobs-per-pass K] [--report-every R]
//                    [--workloads W] [--max-rss-growth-kb KB] [--max-heap-growth-kb KB]
// Exit status: 0 all well, 1 a check failed, 2 bad arguments.

#include <dirent.h>
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "storage/DBAccess.h"
#include "tests/concurrency/JobFactory.h"
#include "tests/crash/QueueAudit.h"
#include "simulator/BackupSimulator.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  long passes = 2000;
  int jobs_per_pass = 5;
  long report_every = 100;
  int workloads = 20;
  // Resident memory may grow this much from the first report to the last
  // (SQLite's page cache fills as the database grows, up to its limit, and
  // the allocator keeps some freed memory) ...
  long max_rss_growth_kb = 8192;
  // ... and the memory in use outside SQLite this much: a leak of 256 bytes
  // a pass over 2000 passes exceeds it.
  long max_heap_growth_kb = 512;
};

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) return false;
    const long value = std::atol(argv[++i]);
    if (value <= 0) return false;
    if (name == "--passes") {
      o.passes = value;
    } else if (name == "--jobs-per-pass") {
      o.jobs_per_pass = static_cast<int>(value);
    } else if (name == "--report-every") {
      o.report_every = value;
    } else if (name == "--workloads") {
      o.workloads = static_cast<int>(value);
    } else if (name == "--max-rss-growth-kb") {
      o.max_rss_growth_kb = value;
    } else if (name == "--max-heap-growth-kb") {
      o.max_heap_growth_kb = value;
    } else {
      return false;
    }
  }
  return true;
}

long resident_kb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0;
  long resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Bytes handed out by malloc and not yet freed (SQLite's included).
long heap_kb() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

// The same without SQLite's share, whose page cache fills up to its limit as
// the database grows.
long non_sqlite_heap_kb() { return heap_kb() - static_cast<long>(sqlite3_memory_used() / 1024); }

int open_descriptors() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++n;
  }
  closedir(dir);
  return n - 1;  // the directory stream itself
}

const char* kConfiguration =
    "[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=10\n"
    "[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=30\nMAX_OBSERVATIONS_FOR_TRAINING=400\n"
    "[META_DATA]\nLOG_MODEL_DATA=1\n"
    "[EXCLUDE_CLIENTS]\nCLIENT_NAME=app-linux-003,no-such-client\n"
    "[DISABLE_POLICY_TYPE]\nPOLICY_TYPE=NDMP\n"
    "[EXCLUDE_CLIENT_POLICY]\napp-linux-004=FS-Apps-Silver\n"
    "[DISABLE_FEATURE_PER_POLICY_TYPE]\nOracle=dedup_rate\nVMware=total_time,kb_transferred\n";

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::cerr << "usage: soak_runner [--passes N] [--jobs-per-pass K] [--report-every R] [--workloads W] "
                 "[--max-rss-growth-kb KB] [--max-heap-growth-kb KB]\n";
    return 2;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tsanomaly-soak-XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  int failures = 0;
  try {
    {
      BackupSimulator::Settings settings;
      settings.workloads = options.workloads;
      settings.days = 60;
      settings.pending = 0;
      settings.seed = 5;
      Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess db(dir + "/soak.db",
                                                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
      BackupSimulator(settings).fill(db);
    }
    std::ofstream(dir + "/soak.ini") << kConfiguration;
    int status = 0;
    open_debug_log(dir, "tsanomalydetect", "tsanomalydetect", 0644, &status);
    if (status != 0) throw std::runtime_error("cannot open the debug log in " + dir);
    set_debug_log_rotation(4 * 1024 * 1024, 2);

    reliability::SqliteFile writer(dir + "/soak.db");
    reliability::Expectations expected;
    expected.base_history_rows = writer.number("SELECT COUNT(*) FROM HIST_DATA");
    reliability::JobFactory factory(writer, "soak-", 17, 20);
    sqlite3_stmt* insert = reliability::JobFactory::prepare_insert(writer.handle());

    DetectionService service(dir, "soak.db", 0.0, 3.0, dir + "/soak.ini");

    std::printf("soak: %ld passes, %d jobs queued before each, %zu workloads, in %s\n", options.passes,
                options.jobs_per_pass, factory.workload_count(), dir.c_str());
    std::printf("%6s %10s %10s %10s %5s %8s %6s %9s %9s\n", "pass", "rss_kb", "heap_kb", "sqlite_kb", "fds", "history",
                "queue", "anomalies", "pass_ms");
    // The log rotates; it is scanned at every report, while the files still
    // hold the lines of the passes since the last one.
    std::set<std::string> failure_lines;
    auto scan_log = [&] {
      // Line by line: the runner must not swell its own memory with the files.
      for (const char* suffix : {".log.2", ".log.1", ".log"}) {
        std::ifstream in(dir + "/tsanomalydetect/tsanomalydetect" + suffix);
        for (std::string line; std::getline(in, line);) {
          if (reliability::is_failure_line(line)) failure_lines.insert(line);
        }
      }
    };
    auto report = [&](long pass, double pass_ms) {
      scan_log();
      std::printf("%6ld %10ld %10ld %10lld %5d %8lld %6lld %9lld %9.1f\n", pass, resident_kb(), heap_kb(),
                  static_cast<long long>(sqlite3_memory_used() / 1024), open_descriptors(),
                  writer.number("SELECT COUNT(*) FROM HIST_DATA"),
                  writer.number("SELECT COUNT(*) FROM DATA_TO_PROCESS"),
                  writer.number("SELECT COUNT(*) FROM ANOMALY_DATA"), pass_ms);
      std::fflush(stdout);
    };
    report(0, 0.0);

    long first_rss = 0;
    long first_heap = 0;
    int first_fds = 0;
    double pass_ms_sum = 0;
    for (long pass = 1; pass <= options.passes; ++pass) {
      writer.exec("BEGIN IMMEDIATE");
      // The keys are soak-1, soak-2, ...: the runner does not hold them (its
      // own bookkeeping must not grow), they are listed at the end.
      for (int i = 0; i < options.jobs_per_pass; ++i) factory.insert_next(insert);
      // Every twentieth pass the operators call the oldest unanswered anomaly a
      // false positive.
      if (pass % 20 == 0) {
        const reliability::TextRows open_anomalies = writer.rows(
            "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE DETECTION_KEY IN "
            "(SELECT UNIQUE_KEY FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 1) ORDER BY rowid LIMIT 1");
        if (!open_anomalies.empty()) {
          const std::string& id = open_anomalies[0][0];
          if (expected.false_positive_verdicts.insert(id).second) {
            writer.exec("INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES ('" + id + "', 1)");
          }
        }
      }
      writer.exec("COMMIT");

      const auto start = Clock::now();
      service.do_detection();
      pass_ms_sum += std::chrono::duration<double, std::milli>(Clock::now() - start).count();

      if (pass % options.report_every == 0 || pass == options.passes) {
        report(pass, pass_ms_sum / static_cast<double>(pass % options.report_every == 0 ? options.report_every
                                                                                        : pass % options.report_every));
        pass_ms_sum = 0;
        if (first_fds == 0) {
          first_rss = resident_kb();
          first_heap = non_sqlite_heap_kb();
          first_fds = open_descriptors();
        }
      }
    }
    sqlite3_finalize(insert);

    const long last_rss = resident_kb();
    const int last_fds = open_descriptors();
    const long heap_growth = non_sqlite_heap_kb() - first_heap;
    for (long long i = 1; i <= factory.made(); ++i) expected.jobs.insert(reliability::JobFactory::key_of("soak-", i));
    const reliability::AuditResult state = reliability::audit(writer, expected, true);
    std::printf(
        "soak: from the first report to the end: rss %ld KB -> %ld KB (%+ld KB), heap outside SQLite "
        "%+ld KB, fds %d -> %d\n",
        first_rss, last_rss, last_rss - first_rss, heap_growth, first_fds, last_fds);
    std::printf(
        "soak: %zu jobs: %lld in history, %lld reported, %lld moved by a verdict, %lld pending; %lld rows "
        "checked\n",
        expected.jobs.size(), state.in_history, state.reported, state.moved_by_feedback, state.pending,
        state.rows_checked);
    if (!state.ok()) {
      std::printf("soak: FAILED audit:\n%s", state.describe().c_str());
      ++failures;
    }
    if (last_fds != first_fds) {
      std::printf("soak: FAILED open descriptors grew from %d to %d\n", first_fds, last_fds);
      ++failures;
    }
    if (heap_growth > options.max_heap_growth_kb) {
      std::printf("soak: FAILED the heap outside SQLite grew by %ld KB (limit %ld KB)\n", heap_growth,
                  options.max_heap_growth_kb);
      ++failures;
    }
    if (last_rss - first_rss > options.max_rss_growth_kb) {
      std::printf("soak: FAILED resident memory grew by %ld KB (limit %ld KB)\n", last_rss - first_rss,
                  options.max_rss_growth_kb);
      ++failures;
    }
    scan_log();
    if (!failure_lines.empty()) {
      std::printf("soak: FAILED %zu failure lines in the debug log, the first: %s\n", failure_lines.size(),
                  failure_lines.begin()->c_str());
      ++failures;
    }
  } catch (const std::exception& e) {
    std::printf("soak: FAILED %s\n", e.what());
    ++failures;
  }
  close_debug_log();
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  std::printf("soak: %s\n", failures == 0 ? "passed" : "FAILED");
  return failures == 0 ? 0 : 1;
}
