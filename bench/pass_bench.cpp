// pass_bench: one detection pass (`tsanomalyctl detect`) at scale, against the
// SQL floor of the same pass (sql_floor).
//
// For each scenario it simulates a backup domain with `tsanomalyctl
// simulate`, then measures in two modes:
//   cold    no DBSCAN_MODEL_PARAMS rows: every workload calibrates;
//   steady  the models a first pass left, with the queue still pending (the
//           simulated database plus the model rows of a pass run on a copy).
// Per mode it records the statements a pass runs (SQLite's statement trace
// on a throwaway copy, in a child process), then times, run after run and on
// a fresh copy each time, the pass as a separate process and sql_floor
// replaying that trace, the two taking turns to go first. Wall time is
// spawn-to-reap (the floor's trace loading taken off); CPU time and peak
// resident memory come from wait4. The tables the floor left are then
// checked against those the pass left.
//
//   pass_bench [--runs N] [--only small,medium,heavy] [--work-dir DIR] [--keep]
//
// Copies are made on the file system of the work directory (default: beside
// the build, where the service's database would be: on disk, as each write
// statement's commit waits for its sync), all of a mode's copies written
// through before its first timed run, so that no run shares the disk with
// copying.
#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/StatementTrace.h"
#include "service/DetectionService.h"
#include "service/ServiceOptions.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr const char* kCtl = TSANOMALY_CTL_PATH;
constexpr const char* kFloor = TSANOMALY_SQL_FLOOR_PATH;
constexpr const char* kDefaultWorkDir = TSANOMALY_PASS_BENCH_WORK_DIR;
constexpr const char* kDbFile = "anomaly.db";

struct Scenario {
  std::string name;
  int workloads;
  int days;
  int pending;
  int anomaly_percent;
  bool streams;
  int runs;
  std::string config;  // INI text; empty: no configuration file
  std::string shape;   // for the table
};

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {
      // A small pass lasts a tenth of a second: more runs even out the
      // scheduling noise of a busy machine.
      {"small", 200, 365, 200, 5, false, 9, "", "200 workloads x 365 days, 200 pending"},
      {"medium", 1000, 365, 1000, 3, false, 5, "", "1000 workloads x 365 days, 1000 pending, 3% anomalies"},
      // Four streams of asset NA: 760 days give each workload 3040 history
      // rows, all of one training key, so every job trains on 3000.
      {"heavy", 20, 760, 80, 5, true, 7, "[ANOMALY_MODEL_SETTINGS]\nMAX_OBSERVATIONS_FOR_TRAINING=3000\n",
       "20 workloads x 4 streams x 760 days (3040 rows each), 80 pending, 3000-row training"},
  };
  return all;
}

struct Target {
  const char* scenario;
  const char* mode;
  double ratio;
};
constexpr Target kTargets[] = {
    {"small", "steady", 1.2}, {"medium", "steady", 1.2}, {"medium", "cold", 1.5}, {"heavy", "cold", 2.0}};
constexpr double kHeavyRssTargetMb = 150.0;

[[noreturn]] void die(const std::string& message) {
  std::fprintf(stderr, "pass_bench: %s\n", message.c_str());
  std::exit(1);
}

// ---------------------------------------------------------------------------
// Processes.

struct Outcome {
  int status = -1;  // raw wait status
  double wall = 0.0;
  double cpu = 0.0;  // user + system
  double peak_rss_mb = 0.0;
};

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

// Spawns argv with standard output and error into output_path and reaps it.
// posix_spawn shares the parent's memory until exec, so the child's peak RSS
// is its own.
Outcome run(const std::vector<std::string>& argv, const std::string& output_path) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const auto started = std::chrono::steady_clock::now();
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) die("cannot start " + argv[0] + ": " + std::strerror(spawned));
  Outcome outcome;
  struct rusage usage {};
  if (wait4(pid, &outcome.status, 0, &usage) != pid) die("wait4 failed for " + argv[0]);
  outcome.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  outcome.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  outcome.peak_rss_mb = static_cast<double>(usage.ru_maxrss) / 1024.0;
  return outcome;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void require_success(const Outcome& o, const std::vector<std::string>& argv, const std::string& output_path) {
  if (!WIFEXITED(o.status) || WEXITSTATUS(o.status) != 0) {
    die(argv[0] + " " + (argv.size() > 1 ? argv[1] : "") + " failed; its output:\n" + read_file(output_path));
  }
}

// ---------------------------------------------------------------------------
// Databases.

// A fresh copy of a closed database (no WAL left beside it), written through
// to the disk before it is used.
void copy_database(const std::string& from, const std::string& to) {
  if (fs::exists(from + "-wal")) die(from + " still has a WAL file");
  fs::create_directories(fs::path(to).parent_path());
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) fs::remove(to + suffix);
  fs::copy_file(from, to);
  const int fd = ::open(to.c_str(), O_RDONLY);
  if (fd < 0 || ::fsync(fd) != 0) die("cannot write " + to + " through");
  ::close(fd);
}

class Connection {
 public:
  explicit Connection(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      die("cannot open " + path);
    }
  }
  ~Connection() { sqlite3_close(db_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void exec(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
      const std::string text = error != nullptr ? error : "";
      sqlite3_free(error);
      die("\"" + sql + "\" failed: " + text);
    }
  }

  long long number(const std::string& sql) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) die("cannot prepare " + sql);
    long long value = -1;
    if (sqlite3_step(s) == SQLITE_ROW) value = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    return value;
  }

 private:
  sqlite3* db_ = nullptr;
};

// ---------------------------------------------------------------------------
// The two programs.

struct Mode {
  std::string name;      // cold / steady
  std::string source;    // database each run starts from
  std::string trace;     // statements the pass ran on it
  long long statements = 0;
};

class Bench {
 public:
  Bench(const Scenario& scenario, const std::string& work_dir)
      : scenario_(scenario), dir_(work_dir + "/" + scenario.name) {
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    if (!scenario.config.empty()) {
      config_ = dir_ + "/tsanomalydetect.ini";
      std::ofstream(config_) << scenario.config;
    }
  }

  void simulate() {
    std::vector<std::string> argv = {kCtl,
                                     "simulate",
                                     base(),
                                     "--workloads",
                                     std::to_string(scenario_.workloads),
                                     "--days",
                                     std::to_string(scenario_.days),
                                     "--pending",
                                     std::to_string(scenario_.pending),
                                     "--anomalies",
                                     std::to_string(scenario_.anomaly_percent),
                                     "--seed",
                                     "1"};
    if (scenario_.streams) {
      argv.insert(argv.end(), {"--streams", "--stream-share", "100"});
    }
    const std::string output = dir_ + "/simulate.out";
    require_success(run(argv, output), argv, output);
    std::fprintf(stderr, "  %s", read_file(output).c_str());
  }

  // The simulated database plus the models a first pass leaves: the queue
  // is still pending, but no workload calibrates.
  std::string make_steady() {
    const std::string warm = dir_ + "/warm/" + kDbFile;
    copy_database(base(), warm);
    pass(warm, dir_ + "/warm");
    const std::string steady = dir_ + "/steady.db";
    copy_database(base(), steady);
    {
      Connection db(steady);
      db.exec("ATTACH DATABASE '" + warm + "' AS warm");
      db.exec("INSERT INTO DBSCAN_MODEL_PARAMS SELECT * FROM warm.DBSCAN_MODEL_PARAMS");
      if (db.number("SELECT COUNT(*) FROM DBSCAN_MODEL_PARAMS") <= 0) die("the first pass left no models");
      db.exec("DETACH DATABASE warm");
    }
    return steady;
  }

  // Runs the pass in a child of this process on a copy of source with the
  // statement trace on, and writes what it ran to trace_path.
  long long record(const std::string& source, const std::string& trace_path) {
    const std::string folder = dir_ + "/trace";
    copy_database(source, folder + "/" + kDbFile);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) die("fork failed");
    if (pid == 0) {
      int code = 0;
      try {
        std::vector<std::string> argv = detect_arguments(folder, folder);
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
        const ServiceOptions options = ServiceOptions::parse(static_cast<int>(args.size()) - 1, args.data() + 1);
        DetectionService service(options.database_location, options.database_file_name, options.eps,
                                 static_cast<double>(options.min_samples), options.config_file);
        pass_bench::StatementTrace trace;
        pass_bench::start_recording(service.database().handle, trace);
        service.do_detection();
        pass_bench::stop_recording(service.database().handle);
        for (const std::string& unknown : trace.unknown) {
          std::fprintf(stderr, "pass_bench: the pass ran a statement the trace cannot replay: %s\n", unknown.c_str());
          code = 1;
        }
        pass_bench::write_trace(trace, trace_path);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "pass_bench: recording failed: %s\n", e.what());
        code = 1;
      }
      std::fflush(nullptr);
      _exit(code);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      die("recording the pass's statements failed");
    }
    return static_cast<long long>(pass_bench::read_trace(trace_path).statements.size());
  }

  // A fresh copy of source in folder for one timed run.
  void prepare_run(const std::string& source, const std::string& folder) {
    fs::remove_all(folder);
    copy_database(source, folder + "/" + kDbFile);
  }

  // One timed pass on the copy prepared in folder.
  Outcome timed_pass(const std::string& folder) { return pass(folder + "/" + kDbFile, folder); }

  // One timed floor on the copy prepared in folder; its wall time leaves
  // out the trace loading it reports.
  Outcome timed_floor(const std::string& trace, const std::string& folder) {
    const std::string db = folder + "/" + kDbFile;
    const std::vector<std::string> argv = {kFloor, db, trace};
    const std::string output = folder + "/floor.out";
    Outcome o = run(argv, output);
    require_success(o, argv, output);
    const std::string text = read_file(output);
    const std::size_t at = text.find("load_seconds ");
    if (at == std::string::npos) die("sql_floor printed no figures: " + text);
    o.wall -= std::strtod(text.c_str() + at + std::strlen("load_seconds "), nullptr);
    return o;
  }

  const std::string& dir() const { return dir_; }
  std::string base() const { return dir_ + "/base.db"; }

 private:
  std::vector<std::string> detect_arguments(const std::string& folder, const std::string& log_path) const {
    std::vector<std::string> argv = {kCtl, "detect", "-database_location", folder, "-database_file_name", kDbFile,
                                     "-log_path", log_path + "/log"};
    if (!config_.empty()) argv.insert(argv.end(), {"-config_file", config_});
    return argv;
  }

  Outcome pass(const std::string& db, const std::string& folder) {
    const std::vector<std::string> argv = detect_arguments(fs::path(db).parent_path().string(), folder);
    fs::create_directories(folder + "/log");
    const std::string output = folder + "/detect.out";
    const Outcome o = run(argv, output);
    require_success(o, argv, output);
    if (!read_file(output).empty()) {
      std::fprintf(stderr, "  note: the pass wrote to standard output: %s\n", read_file(output).c_str());
    }
    return o;
  }

  Scenario scenario_;
  std::string dir_;
  std::string config_;
};

// The tables the floor left must be those the pass left: the same history
// and queue, row for row, and the same model and anomaly keys (their
// capture and detection times, and the payload's time, differ by the clock).
void check_same_writes(const std::string& pass_db, const std::string& floor_db) {
  Connection db(pass_db);
  db.exec("ATTACH DATABASE '" + floor_db + "' AS floor");
  const auto same = [&db](const std::string& table, const std::string& columns) {
    const std::string mine = "SELECT " + columns + " FROM main." + table;
    const std::string theirs = "SELECT " + columns + " FROM floor." + table;
    return db.number("SELECT COUNT(*) FROM main." + table) == db.number("SELECT COUNT(*) FROM floor." + table) &&
           db.number("SELECT COUNT(*) FROM (" + mine + " EXCEPT " + theirs + ")") == 0 &&
           db.number("SELECT COUNT(*) FROM (" + theirs + " EXCEPT " + mine + ")") == 0;
  };
  const std::pair<const char*, const char*> tables[] = {
      {"HIST_DATA", "*"},
      {"DATA_TO_PROCESS", "*"},
      {"DBSCAN_MODEL_PARAMS",
       "CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, DESTINATION_STORAGE_NAME, ASSET_ID"},
      {"ANOMALY_DATA", "ANOMALY_UNIQUE_ID, ANOMALY_STATE, DETECTION_KEY, CLIENT"},
  };
  for (const auto& [table, columns] : tables) {
    if (!same(table, columns)) die(std::string("the floor's ") + table + " differs from the pass's");
  }
  db.exec("DETACH DATABASE floor");
}

// ---------------------------------------------------------------------------
// Figures.

struct Spread {
  double median = 0.0;
  double low = 0.0;
  double high = 0.0;
};

Spread spread(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  const double median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
  return {median, values.front(), values.back()};
}

std::string format(const char* fmt, double value) {
  char text[64];
  std::snprintf(text, sizeof text, fmt, value);
  return text;
}

std::string show(const Spread& s, const char* fmt) {
  return format(fmt, s.median) + " (" + format(fmt, s.low) + "–" + format(fmt, s.high) + ")";
}

struct Result {
  std::string scenario;
  std::string mode;
  int jobs = 0;
  double statements_per_job = 0.0;
  Spread pass_rate;
  Spread floor_rate;
  Spread ratio;      // pass wall / floor wall, run by run
  Spread cpu_ratio;  // pass CPU / floor CPU, run by run
  Spread pass_rss;
  Spread floor_rss;
};

std::optional<double> target_of(const Result& r) {
  for (const Target& t : kTargets) {
    if (r.scenario == t.scenario && r.mode == t.mode) return t.ratio;
  }
  return std::nullopt;
}

void print_table(const std::vector<Result>& results) {
  std::printf("\n| scenario | mode | jobs | statements/job | pass jobs/s | floor jobs/s | pass/floor wall | "
              "pass/floor CPU | pass peak RSS MB | floor peak RSS MB | target |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const Result& r : results) {
    std::string target = "";
    if (const auto t = target_of(r)) {
      target = (r.ratio.median <= *t ? "met: " : "MISSED: ") + format("<= %.1fx", *t);
    }
    if (r.scenario == "heavy") {
      const std::string rss = (r.pass_rss.high < kHeavyRssTargetMb ? "RSS met" : "RSS MISSED");
      target = target.empty() ? rss : target + ", " + rss;
    }
    std::printf("| %s | %s | %d | %.1f | %s | %s | %s | %s | %s | %s | %s |\n", r.scenario.c_str(), r.mode.c_str(),
                r.jobs, r.statements_per_job, show(r.pass_rate, "%.0f").c_str(), show(r.floor_rate, "%.0f").c_str(),
                show(r.ratio, "%.2f").c_str(), show(r.cpu_ratio, "%.1f").c_str(), show(r.pass_rss, "%.0f").c_str(),
                show(r.floor_rss, "%.0f").c_str(), target.c_str());
  }
  std::printf("\nmedian (min–max) over the runs; ratios are taken run by run (pass and floor run back to back on\n"
              "fresh copies of the same database). CPU is user + system time of each process.\n");
}

Result measure(Bench& bench, const Scenario& scenario, const Mode& mode, int runs) {
  Result r;
  r.scenario = scenario.name;
  r.mode = mode.name;
  r.jobs = scenario.pending;
  r.statements_per_job = static_cast<double>(mode.statements) / scenario.pending;
  std::vector<double> pass_rate, floor_rate, ratio, cpu_ratio, pass_rss, floor_rss;
  const auto pass_dir = [&bench](int i) { return bench.dir() + "/pass-" + std::to_string(i); };
  const auto floor_dir = [&bench](int i) { return bench.dir() + "/floor-" + std::to_string(i); };
  // Every copy is made and written through before the first timed run, so
  // that no run shares the disk with copying.
  for (int i = 0; i < runs; ++i) {
    bench.prepare_run(mode.source, pass_dir(i));
    bench.prepare_run(mode.source, floor_dir(i));
  }
  ::sync();
  for (int i = 0; i < runs; ++i) {
    // Alternate which goes first, so that neither always follows the other.
    Outcome p, f;
    if (i % 2 == 0) {
      p = bench.timed_pass(pass_dir(i));
      f = bench.timed_floor(mode.trace, floor_dir(i));
    } else {
      f = bench.timed_floor(mode.trace, floor_dir(i));
      p = bench.timed_pass(pass_dir(i));
    }
    std::fprintf(stderr, "  %s %s run %d: pass %.2f s (cpu %.2f s, %.0f MB), floor %.2f s (cpu %.2f s)\n",
                 scenario.name.c_str(), mode.name.c_str(), i + 1, p.wall, p.cpu, p.peak_rss_mb, f.wall, f.cpu);
    pass_rate.push_back(scenario.pending / p.wall);
    floor_rate.push_back(scenario.pending / f.wall);
    ratio.push_back(p.wall / f.wall);
    cpu_ratio.push_back(p.cpu / std::max(f.cpu, 1e-3));
    pass_rss.push_back(p.peak_rss_mb);
    floor_rss.push_back(f.peak_rss_mb);
  }
  check_same_writes(pass_dir(0) + "/" + kDbFile, floor_dir(0) + "/" + kDbFile);
  for (int i = 0; i < runs; ++i) {
    fs::remove_all(pass_dir(i));
    fs::remove_all(floor_dir(i));
  }
  r.pass_rate = spread(pass_rate);
  r.floor_rate = spread(floor_rate);
  r.ratio = spread(ratio);
  r.cpu_ratio = spread(cpu_ratio);
  r.pass_rss = spread(pass_rss);
  r.floor_rss = spread(floor_rss);
  return r;
}

int usage() {
  std::fprintf(stderr, "usage: pass_bench [--runs N] [--only small,medium,heavy] [--work-dir DIR] [--keep]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 0;  // 0: each scenario's own count
  std::string only;
  std::string work_dir = kDefaultWorkDir;
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      runs = std::atoi(argv[++i]);
      if (runs < 1) return usage();
    } else if (arg == "--only" && i + 1 < argc) {
      only = std::string(",") + argv[++i] + ",";
    } else if (arg == "--work-dir" && i + 1 < argc) {
      work_dir = argv[++i];
    } else if (arg == "--keep") {
      keep = true;
    } else {
      return usage();
    }
  }
  work_dir = fs::absolute(work_dir).string();

  const auto started = std::chrono::steady_clock::now();
  std::vector<Result> results;
  for (const Scenario& scenario : scenarios()) {
    if (!only.empty() && only.find("," + scenario.name + ",") == std::string::npos) continue;
    std::fprintf(stderr, "%s: %s\n", scenario.name.c_str(), scenario.shape.c_str());
    Bench bench(scenario, work_dir);
    bench.simulate();
    std::vector<Mode> modes = {{"cold", bench.base(), bench.dir() + "/trace-cold.txt"},
                               {"steady", bench.make_steady(), bench.dir() + "/trace-steady.txt"}};
    for (Mode& mode : modes) {
      mode.statements = bench.record(mode.source, mode.trace);
      results.push_back(measure(bench, scenario, mode, runs > 0 ? runs : scenario.runs));
    }
    if (!keep) fs::remove_all(bench.dir());
  }
  if (!keep) {
    std::error_code ignored;
    fs::remove(work_dir, ignored);  // only when empty
  }
  print_table(results);
  std::printf("total %.0f s\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  return 0;
}
