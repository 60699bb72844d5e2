// The webhook channel with FORMAT=alertmanager against Debian's real
// prometheus-alertmanager on 127.0.0.1: after one cycle every anomaly is an
// active alert with its labels, grouped as the route's group_by says; after
// a verdict (a false positive, an acknowledgement) and another cycle those
// alerts are resolved while the others stay active; an older database
// gains the table that remembers firing alerts. Skipped when the binary is
// not installed.
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "alerts/UtcTime.h"
#include "operator/Verdict.h"
#include "tests/alert/AlertFixture.h"

namespace {

using namespace std::chrono_literals;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::string_member;

constexpr const char* kAlertmanager = "/usr/bin/prometheus-alertmanager";

// A port nobody listens on right now; the kernel picks it.
int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

class AlertmanagerDelivery : public AlertFixture {
 protected:
  void SetUp() override {
    if (access(kAlertmanager, X_OK) != 0) {
      GTEST_SKIP() << kAlertmanager << " is not installed; run scripts/install-deps";
    }
    port_ = free_port();
    tsanomaly_test::TempDir::write(dir.file("alertmanager.yml"),
                                   "route:\n  receiver: 'null'\n  group_by: ['alertname', 'client']\n"
                                   "  group_wait: 1s\nreceivers:\n  - name: 'null'\n");
    alertmanager_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        kAlertmanager, "--config.file=" + dir.file("alertmanager.yml"), "--storage.path=" + dir.path(),
        "--web.listen-address=127.0.0.1:" + std::to_string(port_), "--cluster.listen-address="});
    alertmanager_->start();
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (auto ready = client().Get("/-/ready"); ready && ready->status == 200) return;
      std::this_thread::sleep_for(100ms);
    }
    alertmanager_->wait(1s);  // killed at the deadline
    const std::string log = alertmanager_->err();
    alertmanager_.reset();  // gone: TearDown must not signal it
    FAIL() << "Alertmanager did not get ready on port " << port_ << ": " << log;
  }
  void TearDown() override {
    if (!alertmanager_) return;
    alertmanager_->send_signal(SIGTERM);
    alertmanager_->wait(10s);  // killed at the deadline
  }

  httplib::Client client() const {
    httplib::Client c("127.0.0.1", port_);
    c.set_connection_timeout(2s);
    c.set_read_timeout(5s);
    return c;
  }
  // An Alertmanager API document.
  tsanomaly_test::JsonPtr get(const std::string& path) const {
    auto answer = client().Get(path);
    EXPECT_TRUE(answer && answer->status == 200) << path;
    return tsanomaly_test::parse(answer ? answer->body : "");
  }
  // The active alerts by their anomaly_id label.
  std::map<std::string, tsanomaly_test::JsonPtr> active_alerts() const {
    std::map<std::string, tsanomaly_test::JsonPtr> alerts;
    auto list = get("/api/v2/alerts");
    for (std::size_t i = 0; i < json_array_size(list.get()); ++i) {
      json_t* alert = json_array_get(list.get(), i);
      alerts[string_member(json_object_get(alert, "labels"), "anomaly_id")] = tsanomaly_test::JsonPtr(json_incref(alert));
    }
    return alerts;
  }
  void write_alertmanager_ini(const std::string& url) const {
    write_ini("[ALERT_WEBHOOK]\nFORMAT=alertmanager\nURL=" + url + "\n[ALERTS]\nGROUP_THRESHOLD=1000\n");
  }
  std::string base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  int port_ = 0;
  std::unique_ptr<ChildProcess> alertmanager_;
};

TEST_F(AlertmanagerDelivery, EveryAnomalyFiresWithItsLabelsGroupedByClient) {
  const auto ids = detect_anomalies(12);
  ASSERT_GE(ids.size(), 5u);
  write_alertmanager_ini(base_url());
  ASSERT_EQ(alert_once(), 0) << log_;
  const auto alerts = active_alerts();
  ASSERT_EQ(alerts.size(), ids.size()) << log_;
  char* example = json_dumps(alerts.begin()->second.get(), JSON_COMPACT);
  std::cout << "[ received ] " << example << "\n";
  free(example);
  std::set<std::string> clients;
  for (auto& row : query("SELECT ANOMALY_UNIQUE_ID, CLIENT, DETECTION_TIME FROM ANOMALY_DATA")) {
    const std::string id = row["ANOMALY_UNIQUE_ID"].text();
    ASSERT_EQ(alerts.count(id), 1u) << id;
    const json_t* alert = alerts.at(id).get();
    const json_t* labels = json_object_get(alert, "labels");
    EXPECT_EQ(tsanomaly_test::member_names(labels).size(), 7u);
    EXPECT_EQ(string_member(labels, "alertname"), "BackupJobAnomaly");
    EXPECT_EQ(string_member(labels, "client"), row["CLIENT"].text());
    for (const char* label : {"policy", "schedule", "storage"}) EXPECT_NE(string_member(labels, label), "") << label;
    EXPECT_TRUE(std::set<std::string>({"info", "warning", "critical"}).count(string_member(labels, "severity")));
    const json_t* annotations = json_object_get(alert, "annotations");
    EXPECT_EQ(string_member(annotations, "summary").rfind(row["CLIENT"].text() + " \u00b7 ", 0), 0u);
    EXPECT_EQ(string_member(annotations, "link"), "https://console.test/anomalies/" + id);
    const std::string detected = utc_time_text(std::stoll(row["DETECTION_TIME"].text()));
    EXPECT_EQ(string_member(alert, "startsAt").substr(0, 19), detected.substr(0, 19));
    EXPECT_EQ(string_member(json_object_get(alert, "status"), "state"), "active");
    clients.insert(row["CLIENT"].text());
  }
  auto groups = get("/api/v2/alerts/groups");
  ASSERT_EQ(json_array_size(groups.get()), clients.size());
  std::size_t grouped = 0;
  for (std::size_t i = 0; i < json_array_size(groups.get()); ++i) {
    const json_t* group = json_array_get(groups.get(), i);
    const json_t* labels = json_object_get(group, "labels");
    EXPECT_EQ(tsanomaly_test::member_names(labels), (std::vector<std::string>{"alertname", "client"}));
    const json_t* members = json_object_get(group, "alerts");
    for (std::size_t j = 0; j < json_array_size(members); ++j) {
      EXPECT_EQ(string_member(json_object_get(json_array_get(members, j), "labels"), "client"),
                string_member(labels, "client"));
    }
    grouped += json_array_size(members);
  }
  EXPECT_EQ(grouped, ids.size());
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_FIRING")[0]["N"].text(), std::to_string(ids.size()));
}

TEST_F(AlertmanagerDelivery, AVerdictResolvesTheAlertOnTheNextCycle) {
  const auto ids = detect_anomalies(8);
  ASSERT_GE(ids.size(), 3u);
  write_alertmanager_ini(base_url() + "/api/v2/alerts");  // the endpoint itself works as well
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(active_alerts().size(), ids.size()) << log_;
  ChildProcess feedback({TSANOMALYCTL_PATH, "feedback", db(), ids[0]});
  ASSERT_EQ(ChildProcess::run(feedback), 0) << feedback.err();
  ASSERT_EQ(give_verdict(db(), ids[1], Verdict::acknowledged), VerdictOutcome::recorded);
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_NE(log_.find("webhook: 2 alerts resolved after a verdict"), std::string::npos) << log_;
  const auto alerts = active_alerts();
  EXPECT_EQ(alerts.count(ids[0]), 0u) << "the false positive still fires";
  EXPECT_EQ(alerts.count(ids[1]), 0u) << "the acknowledged anomaly still fires";
  EXPECT_EQ(alerts.size(), ids.size() - 2);
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_FIRING")[0]["N"].text(), std::to_string(ids.size() - 2));
  // Resolved once: the next cycle posts nothing more.
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(log_.find("alerts resolved"), std::string::npos) << log_;
}

TEST_F(AlertmanagerDelivery, AFloodIsStillOneAlertPerAnomaly) {
  const auto ids = detect_anomalies(30);
  ASSERT_GT(ids.size(), 10u);
  write_ini("[ALERT_WEBHOOK]\nFORMAT=alertmanager\nURL=" + base_url() + "/\n");  // GROUP_THRESHOLD 10
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_NE(log_.find("one summary alert for " + std::to_string(ids.size())), std::string::npos) << log_;
  const auto alerts = active_alerts();
  EXPECT_EQ(alerts.size(), ids.size());
  for (const std::string& id : ids) EXPECT_EQ(alerts.count(id), 1u) << id;
}

TEST_F(AlertmanagerDelivery, ADatabaseFromBeforeTheFiringTableGetsIt) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  ChildProcess init({TSANOMALYCTL_PATH, "init", db(), "--force"});  // beside the simulator's table
  ASSERT_EQ(ChildProcess::run(init), 0) << init.err();
  execute("DROP TABLE ALERT_FIRING");  // the alert tables as they were before it
  write_alertmanager_ini(base_url());
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(active_alerts().size(), ids.size());
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_FIRING")[0]["N"].text(), std::to_string(ids.size()));
}

}  // namespace
