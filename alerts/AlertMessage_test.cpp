// What an alert says, from stored payloads: the one-line headline with the
// most changed feature, the other features, score and link; percent change
// against the edge crossed; hostile texts made harmless; the slack body.
#include "alerts/AlertMessage.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include "tests/support/JsonChecks.h"
#include "alerts/WebhookChannel.h"
#include "operator/AnomalyHandle.h"

namespace {

std::string payload(const std::string& client_attributes) {
  return R"j({"DetectionType":"dbscan","SizeUnit":"MB","Attributes":{"jobid":143509,"clientName":"nas-filer-30",)j"
         R"j("policyName":"NDMP-Shares-Silver","policyType":"NDMP","scheduleName":"Daily-Full",)j" +
         client_attributes + R"j("score":"10.75","storageName":"stu-dd-01"}})j";
}

TEST(AlertMessage, TheHeadlineNamesTheJobAndItsMostChangedFeature) {
  const std::string stored = payload(
      R"j("anomalyBackupFilesCount":"5000 (Usual: 4000 - 4500)","anomalyTimeTaken":"30752 (Usual: 4045 - 5250)",)j"
      R"j("summary":"Backup files count,Total time",)j");
  const AnomalyAlert alert =
      AnomalyAlert::from_row("143509_1728014904", "nas-filer-30", 1728014904, stored, "https://console.example");
  const AlertMessage message = AlertMessage::for_anomaly(alert);
  EXPECT_EQ(message.line,
            "nas-filer-30 \u00b7 NDMP-Shares-Silver \u00b7 Daily-Full: time taken 30752 s, usual 4045\u20135250 s "
            "(+486%)");
  EXPECT_EQ(message.text.substr(0, message.text.find('\n', message.line.size() + 1) + 1),
            message.line + "\nbackup files 5000, usual 4000\u20134500 (+11%)\n");
  EXPECT_NE(message.text.find("score 10.75 \u00b7 policy type NDMP \u00b7 storage stu-dd-01"), std::string::npos);
  EXPECT_NE(message.text.find("\nhttps://console.example/anomalies/143509_1728014904\n"), std::string::npos);
  auto json = tsanomaly_test::parse(message.json);
  EXPECT_EQ(json_real_value(json_object_get(json.get(), "score")), 10.75);
  const json_t* first = json_array_get(json_object_get(json.get(), "features"), 0);
  EXPECT_EQ(tsanomaly_test::string_member(first, "unit"), "s");
  EXPECT_EQ(json_real_value(json_object_get(first, "change_percent")), 486.0);
}

TEST(AlertMessage, SizesAreInMegabytesAndADropIsNegative) {
  const std::string stored = payload(R"j("anomalyImageSize":"1.50 MB (Usual: 1000.00 MB - 1200.50 MB)",)j");
  const AlertMessage message = AlertMessage::for_anomaly(AnomalyAlert::from_row("1_2", "c", 0, stored, ""));
  EXPECT_NE(message.line.find(": image size 1.50 MB, usual 1000.00\u20131200.50 MB (-100%)"), std::string::npos)
      << message.line;
  EXPECT_EQ(message.text.find("http"), std::string::npos) << "no CONSOLE_URL, no link";
}

TEST(AlertMessage, HostileTextsCannotForgeLinesOrGrowWithoutBound) {
  const std::string stored = payload(R"j("anomalyTimeTaken":"9 (Usual: 1 - 2)",)j");
  const AnomalyAlert alert = AnomalyAlert::from_row("a b/c?", "evil\nFAKE LINE\x1b[31m" + std::string(5000, 'x'), 0,
                                                    stored, "https://c.example");
  const AlertMessage message = AlertMessage::for_anomaly(alert);
  EXPECT_EQ(message.line.find('\n'), std::string::npos);
  EXPECT_EQ(message.line.find('\x1b'), std::string::npos);
  EXPECT_LT(message.line.size(), 600u);
  EXPECT_EQ(alert.link, "https://c.example/anomalies/a%20b%2Fc%3F");
}

TEST(AlertMessage, AnIdNoAddressCouldCarryIsLinkedByItsHandle) {
  for (const std::string& id : {std::string("7\r\n_1000"), std::string(9000, '9') + "_1"}) {
    EXPECT_EQ(console_link("https://c.example", id), "https://c.example/anomalies/" + anomaly_handle::digest_of(id));
  }
}

TEST(AlertMessage, ADamagedPayloadStillGivesAnAlert) {
  const AlertMessage message = AlertMessage::for_anomaly(AnomalyAlert::from_row("7_8", "host", 0, "not json", ""));
  EXPECT_EQ(message.line, "host \u00b7  \u00b7 : anomaly reported");
  auto json = tsanomaly_test::parse(message.json);
  EXPECT_TRUE(json_is_null(json_object_get(json.get(), "score")));
}

TEST(AlertMessage, ASummaryNamesAFewAndListsAll) {
  std::vector<AnomalyAlert> alerts;
  for (int i = 0; i < 12; ++i) {
    alerts.push_back(AnomalyAlert::from_row(std::to_string(i) + "_1", "host" + std::to_string(i), 0,
                                            payload(R"j("anomalyTimeTaken":"9 (Usual: 1 - 2)",)j"), ""));
  }
  const AlertMessage message = AlertMessage::summary(alerts);
  EXPECT_EQ(message.line.rfind("12 new backup anomalies: host0 \u00b7 NDMP-Shares-Silver, ", 0), 0u) << message.line;
  EXPECT_NE(message.line.find(" and 7 more"), std::string::npos) << message.line;
  EXPECT_NE(message.text.find("host11 \u00b7 NDMP-Shares-Silver \u00b7 Daily-Full: time taken 9 s"), std::string::npos);
  EXPECT_EQ(message.key, "summary:0_1:12");
}

TEST(AlertMessage, TheSlackBodyHasOnlyTheText) {
  const AlertMessage message = AlertMessage::test("", 0);
  auto json = tsanomaly_test::parse(WebhookChannel::body(WebhookFormat::Slack, message));
  EXPECT_EQ(tsanomaly_test::member_names(json.get()), std::vector<std::string>{"text"});
  EXPECT_EQ(tsanomaly_test::string_member(json.get(), "text"), message.text);
  EXPECT_EQ(WebhookChannel::body(WebhookFormat::Json, message), message.json);
}

TEST(AlertMessage, TheSlackBodyEscapesMarkupAndTheJsonBodyDoesNot) {
  AlertMessage message;
  message.text = "a & b <https://evil.example|click> <!channel> &amp;";
  auto json = tsanomaly_test::parse(WebhookChannel::body(WebhookFormat::Slack, message));
  EXPECT_EQ(tsanomaly_test::string_member(json.get(), "text"),
            "a &amp; b &lt;https://evil.example|click&gt; &lt;!channel&gt; &amp;amp;");
  message.json = "{\"text\":\"<!channel>\"}";
  EXPECT_EQ(WebhookChannel::body(WebhookFormat::Json, message), message.json);
}

}  // namespace
