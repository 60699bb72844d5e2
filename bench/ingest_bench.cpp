// ingest_bench: `tsanomalyctl ingest` of a long jsonl history, as a separate
// process: jobs per second and its peak resident memory, which stays flat
// however long the file is because the file is streamed line by line.
//
//   ingest_bench [--jobs N] [--runs R] [--work-dir DIR]
//
// Each run ingests the same file into a fresh database (made once with
// `tsanomalyctl init` and copied), so every job is queued; wall time is
// spawn-to-reap, CPU time and peak resident memory come from wait4.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr const char* kCtl = TSANOMALY_CTL_PATH;

struct Settings {
  long jobs = 100000;
  int runs = 3;
  std::string work_dir = TSANOMALY_INGEST_BENCH_WORK_DIR;
};

struct Measure {
  double wall_s;
  double cpu_s;
  long peak_rss_kb;
};

Settings parse(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--jobs") {
      settings.jobs = std::stol(argv[i + 1]);
    } else if (name == "--runs") {
      settings.runs = std::stoi(argv[i + 1]);
    } else if (name == "--work-dir") {
      settings.work_dir = argv[i + 1];
    } else {
      throw std::invalid_argument("usage: ingest_bench [--jobs N] [--runs R] [--work-dir DIR]");
    }
  }
  return settings;
}

// Sixty workloads, one job a day each, with ordinary noise.
void write_history(const std::string& path, long jobs) {
  std::ofstream out(path);
  for (long i = 0; i < jobs; ++i) {
    const long workload = i % 60;
    const long day = i / 60;
    out << R"({"id": ")" << i << R"(", "client": "host)" << workload << R"(", "policy": "nightly", "start": )"
        << 1600000000 + day * 86400 + workload * 300 << R"(, "seconds": )" << 600 + (i * 7) % 120
        << R"(, "files": )" << 20000 + (i * 13) % 500 << R"(, "size_kb": )" << 4096000 + (i * 31) % 40000
        << R"(, "transferred_kb": )" << 40960 + (i * 17) % 4000 << "}\n";
  }
}

Measure run(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) throw std::runtime_error("spawn");
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(args[1] + " failed");
  const double cpu = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return {wall, cpu, usage.ru_maxrss};
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Settings settings = parse(argc, argv);
    fs::create_directories(settings.work_dir);
    const std::string history = settings.work_dir + "/history.jsonl";
    const std::string empty = settings.work_dir + "/empty.db";
    const std::string db = settings.work_dir + "/anomaly.db";
    write_history(history, settings.jobs);
    fs::remove(empty);
    run({kCtl, "init", empty});
    std::printf("ingest_bench: %ld jobs, %.1f MB of jsonl\n", settings.jobs, fs::file_size(history) / 1e6);
    std::vector<Measure> measures;
    for (int r = 0; r < settings.runs; ++r) {
      for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(db + suffix);
      fs::copy_file(empty, db);
      measures.push_back(run({kCtl, "ingest", db, "--format", "jsonl", history}));
      const Measure& m = measures.back();
      std::printf("  run %d: %.2f s wall, %.2f s CPU, %.0f jobs/s, peak RSS %ld KB\n", r + 1, m.wall_s, m.cpu_s,
                  settings.jobs / m.wall_s, m.peak_rss_kb);
    }
    std::sort(measures.begin(), measures.end(), [](const Measure& a, const Measure& b) { return a.wall_s < b.wall_s; });
    const Measure& median = measures[measures.size() / 2];
    std::printf("ingest_bench: median %.0f jobs/s (%.2f s), peak RSS %ld KB\n", settings.jobs / median.wall_s,
                median.wall_s, median.peak_rss_kb);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ingest_bench: %s\n", e.what());
    return 1;
  }
}
