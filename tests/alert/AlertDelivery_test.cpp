// The webhook channel end to end: real anomalies from a detection pass, the
// alert process as a child, a receiver on 127.0.0.1. One alert per anomaly,
// none on the next cycle; the documented members; the Authorization header;
// a summary for a flood; nothing for handled anomalies or while alerts are
// off; retries after the receiver comes back, without repeats; giving up.
#include <algorithm>
#include <set>
#include <thread>

#include "tests/alert/AlertFixture.h"

namespace {

using namespace std::chrono_literals;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::string_member;

class AlertDelivery : public AlertFixture {
 protected:
  void SetUp() override { receiver.start(); }
};

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

TEST_F(AlertDelivery, OneWebhookPerAnomalyAndNothingOnTheNextCycle) {
  const auto ids = detect_anomalies(12);
  ASSERT_GE(ids.size(), 5u);
  write_ini(webhook_section("AUTHORIZATION=Bearer s3cret\n") + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(sorted(received_ids()), ids) << log_;
  for (const auto& alert : receiver.received()) {
    EXPECT_EQ(alert.authorization, "Bearer s3cret");
    EXPECT_EQ(alert.content_type, "application/json");
    auto json = tsanomaly_test::parse(alert.body);
    EXPECT_EQ(alert.key, string_member(json.get(), "id"));
    for (const char* member : {"type", "id", "client", "policy", "policy_type", "schedule", "storage",
                               "detection_time", "score", "features", "link", "summary", "text"}) {
      EXPECT_NE(json_object_get(json.get(), member), nullptr) << member << " missing in " << alert.body;
    }
    EXPECT_EQ(string_member(json.get(), "type"), "anomaly");
    EXPECT_EQ(string_member(json.get(), "link"), "https://console.test/anomalies/" + string_member(json.get(), "id"));
    const json_t* features = json_object_get(json.get(), "features");
    ASSERT_TRUE(json_is_array(features));
    ASSERT_GE(json_array_size(features), 1u);
    for (const char* member : {"name", "value", "usual_min", "usual_max", "unit", "change_percent"}) {
      EXPECT_NE(json_object_get(json_array_get(features, 0), member), nullptr) << member;
    }
  }
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(receiver.received().size(), ids.size()) << "the second cycle sent again";
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 1")[0]["N"].text(),
            std::to_string(ids.size()));
}

TEST_F(AlertDelivery, SlackFormatSendsATextMemberWithTheOneLineFirst) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  write_ini(webhook_section("FORMAT=slack\n"));
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), ids.size()) << log_;
  for (const auto& alert : receiver.received()) {
    auto json = tsanomaly_test::parse(alert.body);
    EXPECT_EQ(tsanomaly_test::member_names(json.get()), std::vector<std::string>{"text"});
    const std::string text = string_member(json.get(), "text");
    const std::string first_line = text.substr(0, text.find('\n'));
    EXPECT_NE(first_line.find(" \u00b7 "), std::string::npos) << first_line;
    EXPECT_NE(first_line.find(", usual "), std::string::npos) << first_line;
    EXPECT_NE(text.find("\nscore "), std::string::npos) << text;
    EXPECT_NE(text.find("https://console.test/anomalies/"), std::string::npos) << text;
  }
}

TEST_F(AlertDelivery, FiftyAnomaliesInOnePassGiveOneSummary) {
  const auto ids = detect_anomalies(60);
  ASSERT_GE(ids.size(), 50u);
  write_ini(webhook_section());  // GROUP_THRESHOLD defaults to 10
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), 1u) << log_;
  auto json = tsanomaly_test::parse(receiver.received()[0].body);
  EXPECT_EQ(string_member(json.get(), "type"), "summary");
  EXPECT_EQ(json_integer_value(json_object_get(json.get(), "count")), static_cast<json_int_t>(ids.size()));
  const json_t* list = json_object_get(json.get(), "anomalies");
  ASSERT_EQ(json_array_size(list), ids.size());
  std::vector<std::string> listed;
  for (std::size_t i = 0; i < ids.size(); ++i) listed.push_back(string_member(json_array_get(list, i), "id"));
  EXPECT_EQ(sorted(listed), ids);
  EXPECT_EQ(string_member(json.get(), "summary").rfind(std::to_string(ids.size()) + " new backup anomalies: ", 0), 0u);
  ASSERT_EQ(alert_once(), 0);
  EXPECT_EQ(receiver.received().size(), 1u);
}

TEST_F(AlertDelivery, HandledAnomaliesAreNotAlerted) {
  const auto ids = detect_anomalies(12);
  ASSERT_GE(ids.size(), 4u);
  // A verdict still waiting for the detector, one already folded into the
  // history by a pass, and an acknowledged anomaly.
  for (const std::string& id : {ids[0], ids[1]}) {
    ChildProcess feedback({TSANOMALYCTL_PATH, "feedback", db(), id});
    ASSERT_EQ(ChildProcess::run(feedback), 0) << feedback.err();
  }
  run_detect();
  ASSERT_EQ(query("SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK")[0]["N"].text(), "0");
  ChildProcess feedback({TSANOMALYCTL_PATH, "feedback", db(), ids[2]});
  ASSERT_EQ(ChildProcess::run(feedback), 0) << feedback.err();
  execute("UPDATE ANOMALY_DATA SET ANOMALY_STATE = 1 WHERE ANOMALY_UNIQUE_ID = '" + ids[3] + "'");
  write_ini(webhook_section() + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  const std::vector<std::string> expected(ids.begin() + 4, ids.end());
  EXPECT_EQ(sorted(received_ids()), expected);
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 3")[0]["N"].text(), "4");
}

TEST_F(AlertDelivery, NothingIsSentWhileAlertsAreOffOrTheSwitchIsAbsent) {
  ASSERT_FALSE(detect_anomalies(6).empty());
  for (const char* disable : {"DISABLE_ALERT_SERVICE=1\n", "", "DISABLE_ALERT_SERVICE=no\n"}) {
    write_ini(webhook_section(), disable);
    ASSERT_EQ(alert_once(), 0) << log_;
    EXPECT_NE(log_.find("alerts are off"), std::string::npos) << log_;
  }
  EXPECT_TRUE(receiver.received().empty());
}

TEST_F(AlertDelivery, OnFirstStartOnlyRecentAnomaliesAreAlerted) {
  const auto ids = detect_anomalies(8);
  ASSERT_GE(ids.size(), 3u);
  execute("UPDATE ANOMALY_DATA SET DETECTION_TIME = DETECTION_TIME - 49 * 3600 WHERE ANOMALY_UNIQUE_ID IN ('" +
          ids[0] + "', '" + ids[1] + "')");
  write_ini(webhook_section() + "[ALERTS]\nSINCE_HOURS=48\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(sorted(received_ids()), std::vector<std::string>(ids.begin() + 2, ids.end()));
}

TEST_F(AlertDelivery, ReceiverDownForAWhileGetsEveryAnomalyOnceWhenBack) {
  const auto ids = detect_anomalies(10);
  ASSERT_FALSE(ids.empty());
  const int port = receiver.port();
  write_ini(webhook_section() + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  receiver.stop();
  ChildProcess alert(alert_process());
  alert.start();
  std::this_thread::sleep_for(3s);
  receiver.start(port);
  EXPECT_TRUE(receiver.wait_for(ids.size(), 30s));
  std::this_thread::sleep_for(2s);  // a repeat would arrive by now
  alert.send_signal(SIGTERM);
  EXPECT_TRUE(WIFEXITED(alert.wait()));
  EXPECT_EQ(sorted(received_ids()), ids) << alert.err();
  EXPECT_NE(alert.err().find("webhook: delivery failed"), std::string::npos) << alert.err();
}

TEST_F(AlertDelivery, AnAlertFailingForItsWholeWindowIsGivenUpAndLogged) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  write_ini(webhook_section());
  receiver.answer_with(503);
  ASSERT_EQ(alert_once(), 0);
  EXPECT_NE(log_.find("HTTP status 503"), std::string::npos) << log_;
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 0 AND ATTEMPTS = 1")[0]["N"].text(),
            std::to_string(ids.size()));
  // As if the first failure had been a day ago.
  execute("UPDATE ALERT_DELIVERY SET FIRST_SEEN = FIRST_SEEN - 86401, NEXT_ATTEMPT = 0");
  ASSERT_EQ(alert_once(), 0);
  EXPECT_NE(log_.find("gave up alerting anomaly " + ids[0]), std::string::npos) << log_;
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 2")[0]["N"].text(),
            std::to_string(ids.size()));
  ChildProcess status({TSANOMALYCTL_PATH, "status", db()});
  ASSERT_EQ(ChildProcess::run(status), 0);
  EXPECT_NE(status.out().find("Alerts, webhook             delivered 0, failing 0, given up " +
                              std::to_string(ids.size())),
            std::string::npos)
      << status.out();
}

TEST_F(AlertDelivery, MedianLatencyAfterAPassIsMeasured) {
  tsanomaly_test::ChildProcess sim({TSANOMALYCTL_PATH, "simulate", db(), "--workloads", "8", "--days", "40",
                                    "--pending", "8", "--anomalies", "100"});
  ASSERT_EQ(ChildProcess::run(sim, 120s), 0);
  write_ini(webhook_section() + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ChildProcess alert(alert_process());
  alert.start();
  std::this_thread::sleep_for(1500ms);  // the process is up and idle
  run_detect();
  const auto pass_end = std::chrono::steady_clock::now();
  const auto ids = anomaly_ids();
  ASSERT_FALSE(ids.empty());
  EXPECT_TRUE(receiver.wait_for(ids.size(), 30s));
  alert.send_signal(SIGTERM);
  alert.wait();
  std::vector<double> latencies;
  for (const auto& r : receiver.received()) {
    latencies.push_back(std::chrono::duration<double, std::milli>(r.arrived - pass_end).count());
  }
  std::sort(latencies.begin(), latencies.end());
  const double median = latencies[latencies.size() / 2];
  std::cout << "[ latency  ] " << latencies.size() << " alerts, median " << median << " ms after the pass, max "
            << latencies.back() << " ms (INTERVAL_SECONDS=1)\n";
  EXPECT_EQ(receiver.received().size(), ids.size());
}

}  // namespace
