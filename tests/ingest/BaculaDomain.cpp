#include "tests/ingest/BaculaDomain.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

namespace tsanomaly_test {

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

constexpr const char* kCatalogScript = "/usr/share/bacula-director/make_sqlite3_tables";

// A port nobody listens on now: the kernel's pick for a socket bound to 0.
int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("no free port");
  close(fd);
  return ntohs(address.sin_port);
}

// The SQL of Debian's catalog script: the here-document it feeds sqlite3.
std::string catalog_sql() {
  const std::string script = TempDir::read(kCatalogScript);
  const std::size_t open = script.find("<<END-OF-DATA\n");
  const std::size_t close = script.find("\nEND-OF-DATA", open);
  if (open == std::string::npos || close == std::string::npos) throw std::runtime_error("unexpected catalog script");
  return script.substr(open + 14, close - open - 14);
}

std::string runscript(const std::string& console_config, const std::string& database) {
  return "  RunScript { RunsWhen = After; RunsOnClient = No; RunsOnFailure = Yes\n"
         "    Command = \"" + source_dir() + "/packaging/hooks/bacula-runscript -c " + console_config + " " +
         database +
         " jobid=%i job=%j name=%n client=%c level=%l \\\"jobstatus=%e\\\" jobfiles=%F jobbytes=%b "
         "readbytes=%R \\\"fileset=%f\\\" \\\"pool=%p\\\"\" }\n";
}

}  // namespace

BaculaDomain::BaculaDomain(const std::string& folder, std::vector<std::string> detector_databases)
    : folder_(folder), director_port_(free_port()), file_daemon_port_(free_port()), storage_port_(free_port()) {
  for (const char* sub : {"/work", "/store", "/data"}) std::filesystem::create_directories(folder_ + sub);
  write_configuration(detector_databases);
  create_catalog();
}

BaculaDomain::~BaculaDomain() {
  for (auto& daemon : daemons_) daemon->send_signal(SIGKILL);
}

void BaculaDomain::write_configuration(const std::vector<std::string>& detector_databases) {
  const std::string work = folder_ + "/work";
  const std::string console_config = folder_ + "/bconsole.conf";
  std::string hooks = "  RunScript { RunsWhen = Before; RunsOnClient = No; Command = \"/bin/sh -c \\\"test ! -e " +
                      folder_ + "/fail\\\"\" }\n";
  for (const std::string& database : detector_databases) hooks += runscript(console_config, database);
  TempDir::write(folder_ + "/bacula-dir.conf",
                 "Director { Name = test-dir; DIRport = " + std::to_string(director_port_) +
                     "; DirAddress = 127.0.0.1; WorkingDirectory = \"" + work + "\"; PidDirectory = \"" + work +
                     "\"\n  QueryFile = \"/etc/bacula/scripts/query.sql\"; Password = \"console-pw\"; "
                     "Messages = Daemon\n"
                     // Jobs still run one at a time (a Job runs once at a time); more workers only
                     // spare each job the queue's wait for its single worker to time out.
                     "  Maximum Concurrent Jobs = 10 }\n"
                     "Job { Name = files; Type = Backup; Level = Incremental; Accurate = yes; Client = test-fd\n"
                     "  FileSet = \"Daily Set\"; Storage = disk; Pool = Daily; Messages = Standard\n" +
                     hooks +
                     "}\n"
                     "FileSet { Name = \"Daily Set\"; Include { Options { signature = MD5; compression = GZIP1 }\n"
                     "  File = \"" + data() + "\" } }\n"
                     "Client { Name = test-fd; Address = 127.0.0.1; FDPort = " + std::to_string(file_daemon_port_) +
                     "; Catalog = catalog; Password = \"fd-pw\"; AutoPrune = no }\n"
                     "Storage { Name = disk; Address = 127.0.0.1; SDPort = " + std::to_string(storage_port_) +
                     "; Password = \"sd-pw\"; Device = disk-device; Media Type = File }\n"
                     "Catalog { Name = catalog; dbname = \"bacula\"; dbuser = \"\"; dbpassword = \"\" }\n"
                     "Messages { Name = Standard; console = all, !skipped, !saved; append = \"" + log() +
                     "\" = all, !skipped; catalog = all }\n"
                     "Messages { Name = Daemon; append = \"" + log() + "\" = all, !skipped }\n"
                     "Pool { Name = Daily; Pool Type = Backup; Label Format = \"daily-\"; AutoPrune = no; "
                     "Recycle = no }\n");
  TempDir::write(folder_ + "/bacula-sd.conf",
                 "Storage { Name = test-sd; SDPort = " + std::to_string(storage_port_) +
                     "; SDAddress = 127.0.0.1; WorkingDirectory = \"" + work + "\"; Pid Directory = \"" + work +
                     "\" }\n"
                     "Director { Name = test-dir; Password = \"sd-pw\" }\n"
                     "Device { Name = disk-device; Media Type = File; Archive Device = \"" + folder_ +
                     "/store\"; LabelMedia = yes; Random Access = yes; AutomaticMount = yes; RemovableMedia = no; "
                     "AlwaysOpen = no }\n"
                     "Messages { Name = Standard; director = test-dir = all }\n");
  TempDir::write(folder_ + "/bacula-fd.conf",
                 "FileDaemon { Name = test-fd; FDport = " + std::to_string(file_daemon_port_) +
                     "; FDAddress = 127.0.0.1; WorkingDirectory = \"" + work + "\"; Pid Directory = \"" + work +
                     "\" }\n"
                     "Director { Name = test-dir; Password = \"fd-pw\" }\n"
                     "Messages { Name = Standard; director = test-dir = all, !skipped, !restored }\n");
  TempDir::write(console_config, "Director { Name = test-dir; DIRport = " + std::to_string(director_port_) +
                                     "; Address = 127.0.0.1; Password = \"console-pw\" }\n");
}

void BaculaDomain::create_catalog() {
  DBAccess db(catalog(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  db.execute_query(catalog_sql());
}

void BaculaDomain::fail_jobs(bool fail) {
  if (fail) {
    TempDir::write(folder_ + "/fail", "");
  } else {
    std::filesystem::remove(folder_ + "/fail");
  }
}

void BaculaDomain::start_daemon(const std::string& program, const std::string& config) {
  // Through a shell that execs the daemon: its output goes to a file (a
  // pipe nobody drains could block it), and the hook's tsanomalyctl is the
  // one just built.
  const std::string command = "PATH='" + std::string(TSANOMALY_TEST_BIN_DIR) + "':\"$PATH\" exec " + program +
                              " -f -c '" + folder_ + "/" + config + "' > '" + folder_ + "/work/" + config +
                              ".out' 2>&1";
  daemons_.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{"/bin/sh", "-c", command}));
  daemons_.back()->start();
}

void BaculaDomain::start() {
  start_daemon("/usr/sbin/bacula-sd", "bacula-sd.conf");
  start_daemon("/usr/sbin/bacula-fd", "bacula-fd.conf");
  start_daemon("/usr/sbin/bacula-dir", "bacula-dir.conf");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (console("version\n").find("Version:") == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the Bacula Director did not answer");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

std::string BaculaDomain::console(const std::string& commands) {
  const std::string input = folder_ + "/console-input";
  TempDir::write(input, commands);
  ChildProcess bconsole({"/bin/sh", "-c", "exec /usr/sbin/bconsole -c '" + folder_ + "/bconsole.conf' < '" + input + "'"});
  ChildProcess::run(bconsole, std::chrono::seconds(60));
  return bconsole.out();
}

void BaculaDomain::run_job(const std::string& level, const std::function<bool()>& done) {
  const std::string output = console("run job=files level=" + level + " yes\n");
  if (output.find("Job queued") == std::string::npos) throw std::runtime_error("job not run: " + output);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the job did not finish in a minute");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace tsanomaly_test
