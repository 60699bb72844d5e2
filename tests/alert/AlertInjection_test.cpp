// Hostile text from the database and the configuration, delivered to a
// receiver on 127.0.0.1: a client name written as Slack markup (a disguised
// link and a mention of the whole channel) with a line break, a terminal
// escape and a bidi override in it. Slack gets it escaped as its markup
// asks; every format gets it as plain, visible text.
#include "platform/VisibleText.h"
#include "storage/Statement.h"
#include "tests/alert/AlertFixture.h"

namespace {

using tsanomaly_test::string_member;

// What a backup product could report as a client's name.
const std::string kHostileClient =
    "<https://evil.example|click here> <!channel> & co\n\x1b[31mred\xe2\x80\xae" "reversed";
// The same name shown as visible text, then escaped for Slack.
const std::string kShownForSlack = "&lt;https://evil.example|click here&gt; &lt;!channel&gt; &amp; co";

class AlertInjection : public AlertFixture {
 protected:
  void SetUp() override { receiver.start(); }

  // Anomalies whose client is the hostile name; answers how many.
  std::size_t hostile_anomalies() {
    const auto ids = detect_anomalies(4);
    EXPECT_FALSE(ids.empty());
    DBAccess conn(db(), SQLITE_OPEN_READWRITE);
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement update(conn.handle,
                                                                       "UPDATE ANOMALY_DATA SET CLIENT = ?1");
    update.bind(1, kHostileClient);
    conn.execute_query_prepared(update);
    return ids.size();
  }

  // The "text" member of every body received.
  std::vector<std::string> texts(const char* member) const {
    std::vector<std::string> found;
    for (const auto& alert : receiver.received()) {
      found.push_back(string_member(tsanomaly_test::parse(alert.body).get(), member));
    }
    return found;
  }
};

// No raw line break, escape or bidi override of the name reaches the text.
void expect_visible_client(const std::string& text) {
  EXPECT_NE(text.find(visible_text(kHostileClient.substr(kHostileClient.find('\n')))), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
  EXPECT_EQ(text.find("co\n"), std::string::npos) << text;
}

TEST_F(AlertInjection, SlackTextCarriesTheClientNameEscapedAsPlainText) {
  const std::size_t count = hostile_anomalies();
  write_ini(webhook_section("FORMAT=slack\n") + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), count) << log_;
  for (const std::string& text : texts("text")) {
    EXPECT_EQ(text.rfind(kShownForSlack, 0), 0u) << text;
    // Our own texts hold no markup: any '<' or '>' would be the database's.
    EXPECT_EQ(text.find_first_of("<>"), std::string::npos) << text;
    expect_visible_client(text);
  }
}

TEST_F(AlertInjection, SlackSummaryOfAFloodIsEscapedToo) {
  hostile_anomalies();
  write_ini(webhook_section("FORMAT=slack\n") + "[ALERTS]\nGROUP_THRESHOLD=1\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), 1u) << log_;
  const std::string text = texts("text")[0];
  EXPECT_NE(text.find(kShownForSlack), std::string::npos) << text;
  EXPECT_EQ(text.find_first_of("<>"), std::string::npos) << text;
  expect_visible_client(text);
}

TEST_F(AlertInjection, JsonTextAndSummaryAreVisiblePlainText) {
  const std::size_t count = hostile_anomalies();
  write_ini(webhook_section() + "[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), count) << log_;
  for (const char* member : {"summary", "text", "client"}) {
    for (const std::string& text : texts(member)) {
      // Plain text for receivers to escape for their own markup.
      EXPECT_EQ(text.rfind("<https://evil.example|click here> <!channel> & co", 0), 0u) << text;
      expect_visible_client(text);
    }
  }
}

TEST_F(AlertInjection, AConsoleUrlWithAnInvisibleControlGivesNoLink) {
  hostile_anomalies();
  // U+0085, a C1 control some terminals and chat clients take as a line break.
  tsanomaly_test::TempDir::write(ini(), "[ANOMALY_DETECTION_FUNCTIONALITY]\nDISABLE_ALERT_SERVICE=0\n"
                                        "[ALERTS]\nCONSOLE_URL=https://console.test/\xc2\x85x\nGROUP_THRESHOLD=1000\n" +
                                            webhook_section());
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_NE(log_.find("CONSOLE_URL contains a control or invisible character; alerts carry no link"),
            std::string::npos)
      << log_;
  ASSERT_FALSE(receiver.received().empty()) << log_;
  for (const std::string& text : texts("text")) EXPECT_EQ(text.find("\xc2\x85"), std::string::npos) << text;
  for (const auto& alert : receiver.received()) {
    EXPECT_TRUE(json_is_null(json_object_get(tsanomaly_test::parse(alert.body).get(), "link"))) << alert.body;
  }
}

}  // namespace
