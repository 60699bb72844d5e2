#include "tests/console/ConsoleFixture.h"

#include <sqlite3.h>
#include <sys/wait.h>

#include <ctime>
#include <regex>

#include "contract/AnomalyPayload.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/RowWriter.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

void ConsoleFixture::SetUp() {
  ASSERT_EQ(ctl({"simulate", db(), "--workloads", "12", "--days", "40", "--pending", "12", "--anomalies", "40",
                 "--seed", "7"}),
            0);
  detect();
  ASSERT_GE(anomaly_ids().size(), 2u) << "the simulated pass should report anomalies";
}

void ConsoleFixture::TearDown() {
  if (server) stop();
}

int ConsoleFixture::ctl(const std::vector<std::string>& args, std::string* out, std::string* err) {
  std::vector<std::string> argv{TSANOMALYCTL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess child(argv);
  const int code = ChildProcess::run(child, std::chrono::seconds(60));
  if (out != nullptr) *out = child.out();
  if (err != nullptr) *err = child.err();
  return code;
}

void ConsoleFixture::detect() {
  ASSERT_EQ(ctl({"detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path",
                 dir.path()}),
            0);
}

bool ConsoleFixture::start(const std::vector<std::string>& options) {
  std::vector<std::string> argv{TSANOMALYCTL_PATH, "serve", db(), "--listen", "127.0.0.1:0"};
  argv.insert(argv.end(), options.begin(), options.end());
  server = std::make_unique<ChildProcess>(argv);
  server->start();
  if (!server->wait_for_output(" to sign in.\n", std::chrono::seconds(20))) return false;
  std::smatch m;
  const std::string out = server->out();
  if (!std::regex_search(out, m, std::regex(R"(Open (https?://127\.0\.0\.1:(\d+))/\?token=TOKEN, with TOKEN the content of (.+), to sign in\.)"))) {
    return false;
  }
  url = m[1];
  port = std::stoi(m[2]);
  const std::string file = TempDir::read(m[3]);
  token = file.substr(0, file.find('\n'));
  return !token.empty() && out.find(token) == std::string::npos;
}

int ConsoleFixture::stop() {
  server->send_signal(SIGTERM);
  const int status = server->wait(std::chrono::seconds(20));
  server.reset();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

httplib::Client ConsoleFixture::client() const {
  httplib::Client c(url);
  c.set_connection_timeout(10);
  c.set_read_timeout(30);
  return c;
}

std::string ConsoleFixture::sign_in() {
  auto res = client().Get("/?token=" + token);
  if (!res || res->status != 303) return "";
  const std::string set_cookie = res->get_header_value("Set-Cookie");
  const std::string cookie = set_cookie.substr(0, set_cookie.find(';'));
  // What the landing page's script does: claim the session's proof.
  auto claimed = client().Post("/session/proof", {{"Cookie", cookie}}, "", "text/plain");
  if (claimed && claimed->status == 200) proofs[cookie] = claimed->body;
  return cookie;
}

std::string ConsoleFixture::form(const std::string& cookie, const std::string& id) {
  return "csrf=" + csrf_of_page(cookie, id) + "&proof=" + proofs[cookie];
}

std::string ConsoleFixture::csrf_of_page(const std::string& cookie, const std::string& id) {
  auto res = client().Get("/anomalies/" + id, {{"Cookie", cookie}});
  if (!res) return "";
  std::smatch m;
  if (!std::regex_search(res->body, m, std::regex(R"re(name="csrf" value="([0-9a-f]+)")re"))) return "";
  return m[1];
}

std::vector<std::string> ConsoleFixture::anomaly_ids() const {
  DBAccess access(db(), SQLITE_OPEN_READONLY);
  Rows rows;
  access.read_data("SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA ORDER BY rowid DESC", rows);
  std::vector<std::string> ids;
  for (Row& row : rows) ids.push_back(std::string(row["ANOMALY_UNIQUE_ID"]));
  return ids;
}

long long ConsoleFixture::count(const std::string& sql) const {
  DBAccess access(db(), SQLITE_OPEN_READONLY);
  Rows rows;
  access.read_data(sql, rows);
  return rows.empty() ? -1 : static_cast<int>(rows[0].begin()->second);
}

void ConsoleFixture::queue_moved_jobs(int n) {
  DBAccess file(db(), SQLITE_OPEN_READWRITE);
  file.execute_query(
      "CREATE TEMP TABLE moved AS SELECT * FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 1 LIMIT " +
      std::to_string(n) +
      ";"
      "UPDATE moved SET UNIQUE_KEY = UNIQUE_KEY || '-moved', DESTINATION_STORAGE_NAME = 'new-pool', "
      "PROCESSED_STATUS = 0, BACKUP_TIME = BACKUP_TIME + 86400, JOB_ID = JOB_ID + 100000;"
      "INSERT INTO DATA_TO_PROCESS SELECT * FROM moved;");
}

std::string ConsoleFixture::add_anomaly(const std::string& client, const std::string& job_id) {
  const time_t now = std::time(nullptr);
  Row job;
  const std::pair<const char*, std::string> cells[] = {
      {"BACKUP_ID", "img-" + job_id}, {"BACKUP_TIME", std::to_string(now - 60)}, {"CLIENT", client},
      {"POLICY", "nightly"}, {"POLICY_TYPE", "Standard"}, {"SCHEDULE_TYPE", "FULL"}, {"SCHEDULE_NAME", "daily"},
      {"APP_TYPE", "fs"}, {"NUM_FILES", "50"}, {"IMAGE_SIZE", "2048"}, {"JOB_ID", job_id}, {"PARENT_JOB_ID", "0"},
      {"KB_TRANSFERRED", "1024"}, {"START_TIME", std::to_string(now - 120)}, {"END_TIME", std::to_string(now - 60)},
      {"TOTAL_TIME", "60"}, {"DEDUP_RATE", "2"}, {"USER_IDENTIFIED_CLUSTER", "0"},
      {"DESTINATION_STORAGE_NAME", "pool"}, {"STREAM_NUMBER", "0"}, {"ASSET_ID", "a"}, {"UNIQUE_KEY", "key-" + job_id},
      {"PROCESSED_STATUS", "1"}};
  for (const auto& [column, value] : cells) job[column] = Value(value);
  const std::string id = anomaly_payload::anomaly_id(job_id, static_cast<int>(now - 60));
  AnomalyStats stats;
  stats[std::string("NUM_FILES")] = anomaly_stat{50, 4000, 4500};
  const std::string payload = anomaly_payload::build(job, stats, 1, id, ClosestClusterInfo{}, now);
  DBAccess access(db(), SQLITE_OPEN_READWRITE);
  tsanomaly_test::RowWriter::insert(access, "DATA_TO_PROCESS", job);
  Row anomaly;
  anomaly["ANOMALY_UNIQUE_ID"] = Value(id);
  anomaly["ANOMALY_PAYLOAD"] = Value(payload);
  anomaly["ANOMALY_STATE"] = Value(std::string("0"));
  anomaly["DETECTION_KEY"] = Value("key-" + job_id);
  anomaly["CLIENT"] = Value(client);
  anomaly["DETECTION_TIME"] = Value(std::to_string(now));
  tsanomaly_test::RowWriter::insert(access, "ANOMALY_DATA", anomaly);
  return id;
}
