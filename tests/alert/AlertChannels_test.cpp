// The exec and syslog channels, bad configuration, and alert-test, with the
// alert process as a child: a script that fails once then succeeds, one
// that hangs past its limit, a syslog socket of our own, and each kind of
// broken section next to a working channel.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "tests/alert/AlertFixture.h"

namespace {

using namespace std::chrono_literals;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

class AlertChannels : public AlertFixture {
 protected:
  std::string script(const std::string& name, const std::string& body) const {
    const std::string path = dir.file(name);
    TempDir::write(path, "#!/bin/sh\n" + body);
    chmod(path.c_str(), 0755);
    return path;
  }
  // Documents written by the scripts below, one per line.
  std::vector<std::string> documents(const std::string& file) const {
    std::vector<std::string> lines;
    const std::string text = TempDir::read(dir.file(file));
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
      lines.push_back(text.substr(at, end - at));
    }
    return lines;
  }
};

TEST_F(AlertChannels, ExecScriptThatFailsOnceIsRetriedAndThenSucceeds) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  const std::string mark = dir.file("failed-once"), out = dir.file("received");
  const std::string path = script("notify", "if [ ! -e " + mark + " ]; then touch " + mark +
                                                "; echo 'mail server refused'; exit 1; fi\ncat >> " + out +
                                                "\necho >> " + out + "\n");
  write_ini("[ALERT_EXEC]\nCOMMAND=" + path + "\n[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0);
  EXPECT_NE(log_.find("exec: delivery failed: exit status 1: mail server refused"), std::string::npos) << log_;
  std::this_thread::sleep_for(1100ms);  // RETRY_SECONDS=1
  ASSERT_EQ(alert_once(), 0);
  const auto docs = documents("received");
  ASSERT_EQ(docs.size(), ids.size()) << log_;
  for (const std::string& doc : docs) {
    auto json = tsanomaly_test::parse(doc);
    EXPECT_EQ(tsanomaly_test::string_member(json.get(), "type"), "anomaly");
  }
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 1 AND ATTEMPTS = 2")[0]["N"].text(),
            std::to_string(ids.size()));
}

TEST_F(AlertChannels, ExecScriptThatHangsIsKilledAtItsTimeLimit) {
  ASSERT_FALSE(detect_anomalies(4).empty());
  const std::string path = script("hang", "exec sleep 60\n");
  write_ini("[ALERT_EXEC]\nCOMMAND=" + path + "\nTIMEOUT_SECONDS=1\n");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(alert_once(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
  EXPECT_NE(log_.find("exec: delivery failed: killed at its time limit of 1 s"), std::string::npos) << log_;
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 1")[0]["N"].text(), "0");
}

TEST_F(AlertChannels, SyslogWritesOneLinePerAnomalyToTheSocket) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  const std::string path = dir.file("log.sock");
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  write_ini("[ALERT_SYSLOG]\nENABLED=1\nFACILITY=local3\nPRIORITY=err\nSOCKET=" + path +
            "\n[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  std::vector<std::string> lines;
  char buffer[4096];
  for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) lines.emplace_back(buffer, n);
  close(fd);
  ASSERT_EQ(lines.size(), ids.size()) << log_;
  for (const std::string& line : lines) {
    EXPECT_EQ(line.rfind("<155>", 0), 0u) << line;  // local3 (19) * 8 + err (3)
    EXPECT_NE(line.find(" tsanomalyalert["), std::string::npos) << line;
    EXPECT_NE(line.find(" \u00b7 "), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
}

struct BadSection {
  const char* name;
  std::string section;
  std::string message;
};

void PrintTo(const BadSection& bad, std::ostream* out) { *out << bad.name; }

class BadConfiguration : public AlertChannels, public ::testing::WithParamInterface<BadSection> {};

TEST_P(BadConfiguration, IsLoggedAndReportedWhileTheOtherChannelKeepsWorking) {
  const auto ids = detect_anomalies(4);
  ASSERT_FALSE(ids.empty());
  receiver.start();
  const BadSection& bad = GetParam();
  const bool webhook_is_bad = bad.section.find("[ALERT_WEBHOOK]") != std::string::npos;
  const std::string out = dir.file("received");
  const std::string good = webhook_is_bad ? "[ALERT_EXEC]\nCOMMAND=" + script("ok", "cat >> " + out + "\necho >> " + out + "\n") + "\n"
                                          : webhook_section();
  write_ini(bad.section + good + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0);
  EXPECT_NE(log_.find(bad.message), std::string::npos) << log_;
  const std::size_t delivered = webhook_is_bad ? documents("received").size() : receiver.received().size();
  EXPECT_EQ(delivered, ids.size()) << log_;
  ChildProcess test({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(test), 1);
  EXPECT_NE(test.out().find("configuration error: " + bad.message.substr(bad.message.find(": ") + 2)),
            std::string::npos)
      << test.out();
  EXPECT_NE(test.out().find(webhook_is_bad ? "exec      delivered" : "webhook   delivered"), std::string::npos)
      << test.out();
}

INSTANTIATE_TEST_SUITE_P(
    Sections, BadConfiguration,
    ::testing::Values(
        BadSection{"NoUrl", "[ALERT_WEBHOOK]\nFORMAT=json\n", "webhook channel not used: URL is missing"},
        BadSection{"MalformedUrl", "[ALERT_WEBHOOK]\nURL=http//no-scheme\n",
                   "webhook channel not used: URL 'http//no-scheme' is malformed"},
        BadSection{"NotHttp", "[ALERT_WEBHOOK]\nURL=file:///etc/passwd\n",
                   "webhook channel not used: URL 'file:///etc/passwd' is not http or https"},
        BadSection{"UnknownFormat", "[ALERT_WEBHOOK]\nURL=http://127.0.0.1:9/x\nFORMAT=xml\n",
                   "webhook channel not used: FORMAT 'xml' is unknown (json, slack or alertmanager)"},
        BadSection{"MissingCommand", "[ALERT_EXEC]\nTIMEOUT_SECONDS=5\n", "exec channel not used: COMMAND is missing"},
        BadSection{"RelativeCommand", "[ALERT_EXEC]\nCOMMAND=notify-send x\n",
                   "exec channel not used: COMMAND must start with the program's absolute path, not 'notify-send'"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AlertChannels, AlertTestReportsEachChannelsResult) {
  receiver.start();
  const std::string out = dir.file("received");
  write_ini(webhook_section() + "[ALERT_EXEC]\nCOMMAND=" + script("ok", "cat > " + out + "\n") + "\n",
            "DISABLE_ALERT_SERVICE=1\n");
  ChildProcess test({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  ASSERT_EQ(ChildProcess::run(test), 0) << test.out() << test.err();
  EXPECT_NE(test.out().find("webhook   delivered\nexec      delivered\n"), std::string::npos) << test.out();
  EXPECT_NE(test.out().find("Note: alerts are off"), std::string::npos);
  ASSERT_EQ(receiver.received().size(), 1u);
  auto json = tsanomaly_test::parse(receiver.received()[0].body);
  EXPECT_EQ(tsanomaly_test::string_member(json.get(), "type"), "test");
  EXPECT_EQ(tsanomaly_test::string_member(tsanomaly_test::parse(TempDir::read(out)).get(), "type"), "test");

  receiver.answer_with(500);
  ChildProcess failing({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(failing), 1);
  EXPECT_NE(failing.out().find("webhook   FAILED: HTTP status 500"), std::string::npos) << failing.out();

  write_ini("");
  ChildProcess none({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(none), 1);
  EXPECT_NE(none.out().find("No alert channel is configured"), std::string::npos) << none.out();
}

TEST_F(AlertChannels, UsageErrorsExitTwo) {
  ChildProcess no_config({TSANOMALYCTL_PATH, "alert", db()});
  EXPECT_EQ(ChildProcess::run(no_config), 2);
  EXPECT_NE(no_config.err().find("--config INI is required"), std::string::npos) << no_config.err();
  ChildProcess no_db({TSANOMALYCTL_PATH, "alert", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(no_db), 2);
}

TEST_F(AlertChannels, ADatabaseThatIsNotTheDetectorsFailsTheCycle) {
  TempDir::write(db(), "");
  write_ini(webhook_section());
  EXPECT_EQ(alert_once(), 1);
  EXPECT_NE(log_.find("has no ANOMALY_DATA table"), std::string::npos) << log_;
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM sqlite_master")[0]["N"].text(), "0");
}

}  // namespace
