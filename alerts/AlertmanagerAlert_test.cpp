// Alertmanager's alerts from stored anomalies: exactly the fixed labels,
// hostile client names kept as one label value each, severity from the
// score, startsAt/endsAt, one element per anomaly in a summary, resolution
// with endsAt = now and the same labels, and the body the webhook posts.
#include "alerts/AlertmanagerAlert.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include "alerts/UtcTime.h"
#include "alerts/WebhookChannel.h"
#include "tests/support/JsonChecks.h"

namespace {

using tsanomaly_test::member_names;
using tsanomaly_test::string_member;

std::string payload(const std::string& score) {
  return R"j({"DetectionType":"dbscan","SizeUnit":"MB","Attributes":{"jobid":1,"clientName":"x",)j"
         R"j("policyName":"NDMP-Shares-Silver","policyType":"NDMP","scheduleName":"Daily-Full",)j"
         R"j("anomalyTimeTaken":"30752 (Usual: 4045 - 5250)","summary":"Total time","score":")j" +
         score + R"j(","storageName":"stu-dd-01"}})j";
}

constexpr time_t kDetected = 1728014904;  // 2024-10-04T04:08:24Z

AnomalyAlert anomaly(const std::string& client, const std::string& score = "10.75") {
  return AnomalyAlert::from_row("143509_1728014904", client, kDetected, payload(score), "https://console.example");
}

// The only element of the message's Alertmanager body, as the webhook posts it.
tsanomaly_test::JsonPtr posted(const AlertMessage& message) {
  auto list = tsanomaly_test::parse(WebhookChannel::body(WebhookFormat::Alertmanager, message));
  EXPECT_TRUE(json_is_array(list.get()));
  EXPECT_EQ(json_array_size(list.get()), 1u);
  return tsanomaly_test::JsonPtr(json_incref(json_array_get(list.get(), 0)));
}

TEST(AlertmanagerAlert, AnAnomalyHasTheFixedLabelsItsSummaryLinkAndTimes) {
  const AlertMessage message = AlertMessage::for_anomaly(anomaly("nas-filer-30"));
  auto alert = posted(message);
  const json_t* labels = json_object_get(alert.get(), "labels");
  EXPECT_EQ(member_names(labels), (std::vector<std::string>{"alertname", "client", "policy", "schedule", "storage",
                                                             "severity", "anomaly_id"}));
  EXPECT_EQ(string_member(labels, "alertname"), "BackupJobAnomaly");
  EXPECT_EQ(string_member(labels, "client"), "nas-filer-30");
  EXPECT_EQ(string_member(labels, "policy"), "NDMP-Shares-Silver");
  EXPECT_EQ(string_member(labels, "schedule"), "Daily-Full");
  EXPECT_EQ(string_member(labels, "storage"), "stu-dd-01");
  EXPECT_EQ(string_member(labels, "severity"), "critical");
  EXPECT_EQ(string_member(labels, "anomaly_id"), "143509_1728014904");
  const json_t* annotations = json_object_get(alert.get(), "annotations");
  EXPECT_EQ(string_member(annotations, "summary"), message.line);
  EXPECT_EQ(string_member(annotations, "link"), "https://console.example/anomalies/143509_1728014904");
  EXPECT_EQ(string_member(alert.get(), "startsAt"), "2024-10-04T04:08:24Z");
  EXPECT_EQ(string_member(alert.get(), "endsAt"), utc_time_text(kDetected + alertmanager::kActiveSeconds));
}

TEST(AlertmanagerAlert, WithoutAConsoleUrlThereIsNoLinkAnnotation) {
  const AnomalyAlert alert = AnomalyAlert::from_row("1_2", "c", kDetected, payload("3"), "");
  auto element = posted(AlertMessage::for_anomaly(alert));
  EXPECT_EQ(member_names(json_object_get(element.get(), "annotations")), std::vector<std::string>{"summary"});
}

TEST(AlertmanagerAlert, AHostileClientNameStaysOneBoundedLabelValue) {
  const std::string hostile = "evil\"}, {\"labels\": {\"alertname\": \"x\"}}]\nseverity=\"none\",job=\"y\"\x1b{}=" +
                              std::string(5000, 'x');
  const std::string body = WebhookChannel::body(WebhookFormat::Alertmanager, AlertMessage::for_anomaly(anomaly(hostile)));
  auto list = tsanomaly_test::parse(body);
  ASSERT_EQ(json_array_size(list.get()), 1u) << body;
  const json_t* labels = json_object_get(json_array_get(list.get(), 0), "labels");
  EXPECT_EQ(json_object_size(labels), 7u);
  EXPECT_EQ(string_member(labels, "alertname"), "BackupJobAnomaly");
  EXPECT_EQ(string_member(labels, "severity"), "critical");
  const std::string client = string_member(labels, "client");
  EXPECT_EQ(client.rfind("evil\"}, {\"labels\": {\"alertname\": \"x\"}}]\\nseverity=\"none\",job=\"y\"\\x1b{}=xxx", 0),
            0u)
      << client;
  EXPECT_EQ(client.find('\n'), std::string::npos);
  EXPECT_EQ(client.find('\x1b'), std::string::npos);
  EXPECT_LE(client.size(), 300u);  // 256 bytes kept, escapes and an ellipsis added
  EXPECT_LT(body.size(), 2000u);
}

TEST(AlertmanagerAlert, SeverityFollowsTheScoreThresholds) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"0.5", "info"},        {"4.99", "info"},           {"5", "warning"},  {"9.99", "warning"},
      {"10", "critical"},     {"250.00", "critical"},     {"", "warning"},   {"not a number", "warning"},
      {"nan", "warning"},     {"inf", "warning"}};
  for (const auto& [score, severity] : cases) {
    auto alert = posted(AlertMessage::for_anomaly(anomaly("c", score)));
    EXPECT_EQ(string_member(json_object_get(alert.get(), "labels"), "severity"), severity) << "score '" << score << "'";
  }
}

TEST(AlertmanagerAlert, ASummaryStillPostsOneAlertPerAnomaly) {
  std::vector<AnomalyAlert> alerts;
  for (int i = 0; i < 12; ++i) {
    alerts.push_back(AnomalyAlert::from_row(std::to_string(i) + "_1", "host" + std::to_string(i), kDetected,
                                            payload("7"), ""));
  }
  const AlertMessage message = AlertMessage::summary(alerts);
  ASSERT_EQ(message.alertmanager.size(), 12u);
  auto list = tsanomaly_test::parse(WebhookChannel::body(WebhookFormat::Alertmanager, message));
  ASSERT_EQ(json_array_size(list.get()), 12u);
  for (std::size_t i = 0; i < 12; ++i) {
    const json_t* labels = json_object_get(json_array_get(list.get(), i), "labels");
    EXPECT_EQ(string_member(labels, "anomaly_id"), std::to_string(i) + "_1");
    EXPECT_EQ(string_member(labels, "client"), "host" + std::to_string(i));
    EXPECT_EQ(string_member(labels, "severity"), "warning");
  }
}

TEST(AlertmanagerAlert, ResolvingPostsTheSameLabelsEndingNow) {
  const AlertMessage fired = AlertMessage::for_anomaly(anomaly("nas-filer-30"));
  const time_t now = kDetected + 3600;
  const AlertMessage resolved = AlertMessage::resolved({fired.alertmanager[0], "damaged {"}, now);
  auto before = posted(fired);
  auto after = posted(resolved);  // the damaged one is left out
  EXPECT_TRUE(json_equal(json_object_get(before.get(), "labels"), json_object_get(after.get(), "labels")));
  EXPECT_EQ(string_member(after.get(), "startsAt"), "2024-10-04T04:08:24Z");
  EXPECT_EQ(string_member(after.get(), "endsAt"), "2024-10-04T05:08:24Z");
  EXPECT_TRUE(resolved.json.empty());
}

TEST(AlertmanagerAlert, TheTestAlertEndsByItself) {
  const AlertMessage message = AlertMessage::test("https://console.example", kDetected);
  auto alert = posted(message);
  EXPECT_EQ(string_member(json_object_get(alert.get(), "labels"), "alertname"), "BackupJobAnomalyAlertTest");
  EXPECT_EQ(string_member(json_object_get(alert.get(), "annotations"), "summary"), message.line);
  EXPECT_EQ(string_member(alert.get(), "startsAt"), "2024-10-04T04:08:24Z");
  EXPECT_EQ(string_member(alert.get(), "endsAt"), "2024-10-04T04:13:24Z");
}

}  // namespace
