// The programs as a service manager and an operator see them: the start-up
// warning about unknown schema code (in the log and in `status`), and the
// notifications the service sends through a real NOTIFY_SOCKET.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::NotifySocket;
using tsanomaly_test::TempDir;

namespace {

constexpr const char* kWarning =
    "<4> tsanomalydetect: Database holds trigger EXFILTRATE, which the detector's schema does not define; it runs "
    "with the rights of every program that writes the database.";

class StartupChecksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBAccess db(database(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
  }

  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
  }

  std::string database() const { return dir.file("anomaly.db"); }

  void plant_trigger() {
    DBAccess db(database(), SQLITE_OPEN_READWRITE);
    db.execute_query("CREATE TRIGGER EXFILTRATE AFTER INSERT ON ANOMALY_DATA BEGIN DELETE FROM HIST_DATA; END");
  }

  std::vector<std::string> service_args() const {
    return {"-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path", dir.path(),
            "-config_file", dir.file("none.ini")};
  }

  // The log's messages without timestamp and pid.
  std::vector<std::string> log_messages() const {
    std::vector<std::string> lines;
    std::istringstream in(TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")));
    for (std::string line; std::getline(in, line);) lines.push_back(line.substr(line.find("] <") + 2));
    return lines;
  }

  std::vector<std::string> one_pass_messages() {
    std::vector<std::string> argv = {TSANOMALYCTL_PATH, "detect"};
    for (const auto& arg : service_args()) argv.push_back(arg);
    ChildProcess detect(argv);
    EXPECT_EQ(ChildProcess::run(detect), 0) << detect.err();
    std::vector<std::string> messages = log_messages();
    std::remove(dir.file("tsanomalydetect/tsanomalydetect.log").c_str());
    return messages;
  }

  TempDir dir;
};

}  // namespace

TEST_F(StartupChecksTest, AnUnknownTriggerIsLoggedOnceAmongTheStartUpLinesAndThePassIsUnchanged) {
  const std::vector<std::string> clean = one_pass_messages();
  plant_trigger();
  const std::vector<std::string> planted = one_pass_messages();
  ASSERT_EQ(planted.size(), clean.size() + 1) << testing::PrintToString(planted);
  EXPECT_EQ(planted[0], "<2> tsanomalydetect: Using configuration file " + dir.file("none.ini"));
  EXPECT_EQ(planted[1], kWarning);
  // Everything after the start-up lines is the pass, exactly as without the trigger.
  EXPECT_EQ(std::vector<std::string>(planted.begin() + 2, planted.end()),
            std::vector<std::string>(clean.begin() + 1, clean.end()));
}

TEST_F(StartupChecksTest, TheServiceWarnsAtStartUp) {
  plant_trigger();
  std::vector<std::string> argv = {TSANOMALYDETECT_PATH};
  for (const auto& arg : service_args()) argv.push_back(arg);
  ChildProcess service(argv);
  service.start();
  ASSERT_TRUE(service.wait_for_output("min samples = 3", std::chrono::seconds(20)));
  service.send_signal(SIGTERM);
  service.wait();
  const std::vector<std::string> messages = log_messages();
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[1], kWarning);
}

TEST_F(StartupChecksTest, StatusShowsTheSameFinding) {
  ChildProcess before({TSANOMALYCTL_PATH, "status", database()});
  ASSERT_EQ(ChildProcess::run(before), 0);
  EXPECT_EQ(before.out().find("Unknown"), std::string::npos) << before.out();
  plant_trigger();
  ChildProcess after({TSANOMALYCTL_PATH, "status", database()});
  ASSERT_EQ(ChildProcess::run(after), 0);
  EXPECT_NE(after.out().find("\nUnknown trigger             EXFILTRATE (not defined by the detector's schema)\n"),
            std::string::npos)
      << after.out();
}

TEST_F(StartupChecksTest, TheServiceNotifiesReadyWatchdogAndStoppingThroughNotifySocket) {
  NotifySocket notify(dir.file("notify.sock"));
  setenv("NOTIFY_SOCKET", notify.path().c_str(), 1);
  setenv("WATCHDOG_USEC", "2000000", 1);
  std::vector<std::string> argv = {TSANOMALYDETECT_PATH};
  for (const auto& arg : service_args()) argv.push_back(arg);
  ChildProcess service(argv);
  service.start();
  const auto ready = notify.receive(std::chrono::seconds(20));
  ASSERT_TRUE(ready.has_value());
  EXPECT_EQ(*ready, "READY=1\nSTATUS=Waiting for the first pass (one every 120 s)");
  EXPECT_EQ(notify.receive(std::chrono::seconds(3)), std::optional<std::string>("WATCHDOG=1"));
  service.send_signal(SIGTERM);
  const auto rest = notify.receive_until("STOPPING=1", std::chrono::seconds(20));
  ASSERT_FALSE(rest.empty());
  EXPECT_EQ(rest.back(), "STOPPING=1");
  const int status = service.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
