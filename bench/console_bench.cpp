// The operator console at scale: a detector database with a long history
// (default 20,000 workloads x 350 days = 7 million rows) and 100,000
// reported anomalies in every state, served by the built tsanomalyctl; each
// page, API call and /metrics is timed over a loopback socket, and the
// server's peak memory is read from /proc.
//
//   console_bench [--workloads N] [--days D] [--anomalies A] [--runs R] [--work-dir DIR]
//
// The database is built once into the work folder and reused while the
// sizes stay the same (building 7 million rows takes a minute or two).
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "contract/AnomalyPayload.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "simulator/BackupSimulator.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

extern char** environ;

namespace {

struct Options {
  int workloads = 20000;
  int days = 350;
  int anomalies = 100000;
  int runs = 15;
  std::string work_dir = TSANOMALY_CONSOLE_BENCH_WORK_DIR;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--workloads") o.workloads = std::atoi(argv[i + 1]);
    else if (name == "--days") o.days = std::atoi(argv[i + 1]);
    else if (name == "--anomalies") o.anomalies = std::atoi(argv[i + 1]);
    else if (name == "--runs") o.runs = std::atoi(argv[i + 1]);
    else if (name == "--work-dir") o.work_dir = argv[i + 1];
  }
  return o;
}

// Every queued job reported as the detector reports it, detection times
// spread over the last 60 days; then 2 % reported as false positives, 1 %
// of those learned (the job moved into the history as a pass would), and
// 1 % acknowledged.
void report_queue(DBAccess& db, int anomalies) {
  Rows jobs;
  db.read_data("SELECT * FROM DATA_TO_PROCESS", jobs);
  const time_t now = std::time(nullptr);
  db.begin_transaction();
  Statement insert(db.handle, "INSERT INTO ANOMALY_DATA VALUES (?, ?, 0, ?, ?, ?)");
  int n = 0;
  for (Row& job : jobs) {
    const std::string id = anomaly_payload::anomaly_id(std::string(job["JOB_ID"]), static_cast<int>(job["BACKUP_TIME"]));
    AnomalyStats stats;
    stats["IMAGE_SIZE"] = anomaly_stat{static_cast<double>(job["IMAGE_SIZE"]), 1000, 2000};
    stats["NUM_FILES"] = anomaly_stat{static_cast<double>(job["NUM_FILES"]), 10, 20};
    const std::string payload = anomaly_payload::build(job, stats, 1, id, ClosestClusterInfo{0, 7.5}, now);
    insert.reset();
    insert.bind(1, id);
    insert.bind(2, payload);
    insert.bind(3, std::string(job["UNIQUE_KEY"]));
    insert.bind(4, std::string(job["CLIENT"]));
    insert.bind(5, static_cast<double>(now - 60L * 86400 + 60L * 86400 * n / anomalies));
    db.execute_query_prepared(insert);
    ++n;
  }
  db.execute_query("UPDATE DATA_TO_PROCESS SET PROCESSED_STATUS = 1");
  db.execute_query("INSERT INTO ANOMALY_DATA_FEEDBACK SELECT ANOMALY_UNIQUE_ID, 1 FROM ANOMALY_DATA WHERE rowid % 50 = 0");
  db.execute_query("UPDATE ANOMALY_DATA SET ANOMALY_STATE = 1 WHERE rowid % 100 = 7");
  db.execute_query(
      "INSERT OR REPLACE INTO HIST_DATA SELECT BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, "
      "SCHEDULE_NAME, APP_TYPE, NUM_FILES, IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, KB_TRANSFERRED, START_TIME, END_TIME, "
      "TOTAL_TIME, DEDUP_RATE, 1, 1, DESTINATION_STORAGE_NAME, STREAM_NUMBER, ASSET_ID, UNIQUE_KEY FROM DATA_TO_PROCESS "
      "WHERE UNIQUE_KEY IN (SELECT DETECTION_KEY FROM ANOMALY_DATA WHERE rowid % 100 = 0)");
  db.execute_query(
      "DELETE FROM ANOMALY_DATA_FEEDBACK WHERE ANOMALY_UNIQUE_ID IN (SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA "
      "WHERE rowid % 100 = 0)");
  db.commit_transaction();
}

std::string build_database(const Options& o) {
  mkdir(o.work_dir.c_str(), 0755);
  const std::string db_path = o.work_dir + "/console-" + std::to_string(o.workloads) + "x" + std::to_string(o.days) +
                              "-" + std::to_string(o.anomalies) + ".db";
  if (access(db_path.c_str(), R_OK) == 0) return db_path;
  const std::string partial = db_path + ".building";
  std::remove(partial.c_str());
  const auto started = std::chrono::steady_clock::now();
  {
    DBAccess db(partial, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    BackupSimulator::Settings settings;
    settings.workloads = o.workloads;
    settings.days = o.days;
    settings.pending = o.anomalies;
    settings.seed = 1;
    BackupSimulator(settings).fill(db);
    report_queue(db, o.anomalies);
    db.execute_query("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  std::rename(partial.c_str(), db_path.c_str());
  std::printf("built %s in %.0f s\n", db_path.c_str(),
              std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  return db_path;
}

long long scalar(const std::string& db_path, const char* sql) {
  DBAccess db(db_path, SQLITE_OPEN_READONLY);
  Rows rows;
  db.read_data(sql, rows);
  return static_cast<long long>(static_cast<double>(rows[0].begin()->second));
}

struct Server {
  pid_t pid = -1;
  int port = 0;
  std::string token;
};

Server start_server(const std::string& db_path) {
  const std::string out_path = db_path + ".serve.out";
  std::remove(out_path.c_str());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<std::string> args{TSANOMALY_CTL_PATH, "serve", db_path, "--listen", "127.0.0.1:0"};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  Server server;
  if (posix_spawn(&server.pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot start tsanomalyctl serve");
  }
  for (int i = 0; i < 200; ++i) {
    std::ifstream out(out_path);
    std::string line;
    while (std::getline(out, line)) {
      char token[300];
      if (std::sscanf(line.c_str(), "Open http://127.0.0.1:%d/?token=%299s", &server.port, token) == 2) {
        server.token = token;
        return server;
      }
    }
    usleep(100000);
  }
  throw std::runtime_error("tsanomalyctl serve printed no address");
}

long long kilobytes(pid_t pid, const char* field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::atoll(line.c_str() + std::strlen(field));
  }
  return -1;
}

struct Timing {
  double median_ms, max_ms;
  int status;
};

Timing time_requests(httplib::Client& client, const std::string& path, const httplib::Headers& headers, int runs) {
  std::vector<double> ms;
  int status = 0;
  for (int i = 0; i < runs; ++i) {
    const auto started = std::chrono::steady_clock::now();
    auto res = client.Get(path, headers);
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count());
    status = res ? res->status : -1;
  }
  std::sort(ms.begin(), ms.end());
  return {ms[ms.size() / 2], ms.back(), status};
}

// One verdict for every open anomaly of one day (about 1,700 at the default
// scale), timed once; then undone, so the database stays reusable.
void time_batch(httplib::Client& client, const httplib::Headers& api, const std::string& db_path) {
  const long long day = scalar(db_path, "SELECT MAX(DETECTION_TIME) - 86400 * 30 FROM ANOMALY_DATA");
  char date[16];
  const time_t t = static_cast<time_t>(day);
  std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&t));
  const std::string path = std::string("/api/v1/verdicts?verdict=acknowledge&scope=filter&state=open&reason=") +
                           "console_bench&from=" + date + "&to=" + date;
  const auto started = std::chrono::steady_clock::now();
  auto res = client.Post(path, api, "", "text/plain");
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  const long long given = scalar(db_path, "SELECT COUNT(*) FROM VERDICT_REASON WHERE REASON = 'console_bench'");
  std::printf("%-52s %8d %10.1f (%lld verdicts, %.3f ms each)\n", "POST /api/v1/verdicts (one day, open)",
              res ? res->status : -1, ms, given, given > 0 ? ms / static_cast<double>(given) : 0.0);
  DBAccess undo(db_path, SQLITE_OPEN_READWRITE);
  undo.execute_query("UPDATE ANOMALY_DATA SET ANOMALY_STATE = 0 WHERE ANOMALY_UNIQUE_ID IN (SELECT ANOMALY_UNIQUE_ID "
                     "FROM VERDICT_REASON WHERE REASON = 'console_bench')");
  undo.execute_query("DELETE FROM VERDICT_REASON WHERE REASON = 'console_bench'");
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  const std::string db_path = build_database(o);
  std::printf("database: %lld history rows, %lld anomalies\n", scalar(db_path, "SELECT COUNT(*) FROM HIST_DATA"),
              scalar(db_path, "SELECT COUNT(*) FROM ANOMALY_DATA"));
  Server server = start_server(db_path);
  httplib::Client client("127.0.0.1", server.port);
  client.set_read_timeout(120);
  auto signed_in = client.Get("/?token=" + server.token);
  const std::string cookie = signed_in ? signed_in->get_header_value("Set-Cookie") : "";
  const httplib::Headers page{{"Cookie", cookie.substr(0, cookie.find(';'))}};
  const httplib::Headers api{{"Authorization", "Bearer " + server.token}};
  DBAccess db(db_path, SQLITE_OPEN_READONLY);
  Rows some;
  db.read_data("SELECT ANOMALY_UNIQUE_ID, CLIENT FROM ANOMALY_DATA ORDER BY rowid LIMIT 1 OFFSET "
               "(SELECT COUNT(*) / 2 FROM ANOMALY_DATA)",
               some);
  if (some.empty()) {
    kill(server.pid, SIGTERM);
    std::fprintf(stderr, "console_bench: the database holds no anomaly\n");
    return 1;
  }
  const std::string id = std::string(some[0]["ANOMALY_UNIQUE_ID"]);
  const std::string client_name = std::string(some[0]["CLIENT"]);

  const std::pair<std::string, const httplib::Headers*> requests[] = {
      {"/", &page},
      {"/?page=1000", &page},
      {"/?client=" + client_name, &page},
      {"/?state=acknowledged", &page},
      {"/?state=open&page=50", &page},
      {"/?policy=nope", &page},
      {"/?from=2000-01-01&to=2000-12-31", &page},
      {"/anomalies/" + id, &page},
      {"/workloads?anomaly=" + id, &page},
      {"/anomalies.csv?state=open", &page},
      {"/status", &page},
      {"/api/v1/anomalies", &api},
      {"/api/v1/anomalies?limit=500&offset=50000", &api},
      {"/api/v1/anomalies?state=false-positive-learned", &api},
      {"/api/v1/anomalies/" + id, &api},
      {"/api/v1/status", &api},
      {"/metrics", &api},
  };
  std::printf("%-52s %8s %10s %8s\n", "request", "status", "median ms", "max ms");
  for (const auto& [path, headers] : requests) {
    const Timing t = time_requests(client, path, *headers, o.runs);
    std::printf("%-52s %8d %10.1f %8.1f\n", path.substr(0, 52).c_str(), t.status, t.median_ms, t.max_ms);
  }
  time_batch(client, api, db_path);
  std::printf("server memory: peak RSS %lld kB, RSS now %lld kB\n", kilobytes(server.pid, "VmHWM:"),
              kilobytes(server.pid, "VmRSS:"));
  kill(server.pid, SIGTERM);
  int status = 0;
  waitpid(server.pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
