// The console's data and actions over real sockets: the JSON API's list,
// filters, paging, one anomaly with its chart data, the status figures, the
// verdicts and their states through a real detection pass, /metrics against
// the exposition format, and hostile client names coming back escaped.
#include <gtest/gtest.h>
#include <jansson.h>

#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <chrono>
#include <cstdio>

#include "platform/VisibleText.h"
#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/console/ConsoleFixture.h"
#include "util/Text.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

Json parse(const std::string& text) {
  Json json(json_loads(text.c_str(), 0, nullptr), json_decref);
  EXPECT_TRUE(json) << "not JSON: " << text;
  return json;
}

std::string str(json_t* object, const char* member) {
  json_t* value = json_object_get(object, member);
  return json_is_string(value) ? json_string_value(value) : "";
}

long long integer(json_t* object, const char* member) { return json_integer_value(json_object_get(object, member)); }

}  // namespace

using ConsoleApiTest = ConsoleFixture;

TEST_F(ConsoleApiTest, ListsAnomaliesNewestFirstWithPaging) {
  ASSERT_TRUE(start());
  const std::vector<std::string> ids = anomaly_ids();
  auto res = client().Get("/api/v1/anomalies", bearer());
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
  Json all = parse(res->body);
  json_t* items = json_object_get(all.get(), "anomalies");
  ASSERT_EQ(json_array_size(items), ids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(str(json_array_get(items, i), "id"), ids[i]);
    EXPECT_EQ(str(json_array_get(items, i), "state"), "open");
    EXPECT_EQ(str(json_array_get(items, i), "url"), "/anomalies/" + ids[i]);
  }
  EXPECT_EQ(integer(all.get(), "total"), static_cast<long long>(ids.size()));

  res = client().Get("/api/v1/anomalies?limit=1&offset=1", bearer());
  ASSERT_TRUE(res);
  Json second = parse(res->body);
  ASSERT_EQ(json_array_size(json_object_get(second.get(), "anomalies")), 1u);
  EXPECT_EQ(str(json_array_get(json_object_get(second.get(), "anomalies"), 0), "id"), ids[1]);

  for (const char* bad : {"limit=0", "limit=501", "offset=-1", "limit=ten", "from=yesterday", "state=closed"}) {
    res = client().Get(std::string("/api/v1/anomalies?") + bad, bearer());
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400) << bad;
  }
}

TEST_F(ConsoleApiTest, FiltersByClientPolicyTimeAndState) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  Json one = parse(client().Get("/api/v1/anomalies/" + id, bearer())->body);
  const std::string client_name = str(one.get(), "client");
  const std::string policy = str(one.get(), "policy");

  std::string lower = client_name;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const std::string& query : {"client=" + client_name, "client=" + lower, "policy=" + policy}) {
    Json list = parse(client().Get("/api/v1/anomalies?" + query, bearer())->body);
    json_t* items = json_object_get(list.get(), "anomalies");
    ASSERT_GE(json_array_size(items), 1u) << query;
    for (std::size_t i = 0; i < json_array_size(items); ++i) {
      const char* member = query.rfind("client", 0) == 0 ? "client" : "policy";
      EXPECT_EQ(str(json_array_get(items, i), member), member[0] == 'c' ? client_name : policy) << query;
    }
  }
  Json none = parse(client().Get("/api/v1/anomalies?client=nobody-here", bearer())->body);
  EXPECT_EQ(json_array_size(json_object_get(none.get(), "anomalies")), 0u);
  Json old = parse(client().Get("/api/v1/anomalies?to=2000-01-01", bearer())->body);
  EXPECT_EQ(json_array_size(json_object_get(old.get(), "anomalies")), 0u);
  Json recent = parse(client().Get("/api/v1/anomalies?from=2000-01-01", bearer())->body);
  EXPECT_EQ(json_array_size(json_object_get(recent.get(), "anomalies")), anomaly_ids().size());

  ASSERT_EQ(client().Post("/api/v1/anomalies/" + id + "/acknowledge", bearer(), "", "text/plain")->status, 200);
  Json acknowledged = parse(client().Get("/api/v1/anomalies?state=acknowledged", bearer())->body);
  ASSERT_EQ(json_array_size(json_object_get(acknowledged.get(), "anomalies")), 1u);
  EXPECT_EQ(str(json_array_get(json_object_get(acknowledged.get(), "anomalies"), 0), "id"), id);
  Json open = parse(client().Get("/api/v1/anomalies?state=open", bearer())->body);
  EXPECT_EQ(json_array_size(json_object_get(open.get(), "anomalies")), anomaly_ids().size() - 1);
}

TEST_F(ConsoleApiTest, OneAnomalyCarriesItsPayloadAndChartData) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  auto res = client().Get("/api/v1/anomalies/" + id, bearer());
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  Json one = parse(res->body);
  EXPECT_EQ(str(one.get(), "id"), id);
  EXPECT_EQ(str(one.get(), "state"), "open");
  json_t* payload = json_object_get(one.get(), "payload");
  ASSERT_TRUE(json_is_object(payload));
  EXPECT_EQ(str(json_object_get(payload, "Attributes"), "anomalyId"), id);
  EXPECT_EQ(str(json_object_get(payload, "Attributes"), "anomalyFeedback"), "Report as false positive");
  json_t* features = json_object_get(one.get(), "features");
  ASSERT_GE(json_array_size(features), 1u);
  json_t* chart = json_object_get(json_array_get(features, 0), "chart");
  ASSERT_TRUE(json_is_object(chart)) << res->body.substr(0, 400);
  EXPECT_GE(json_array_size(json_object_get(chart, "history")), 10u);
  EXPECT_EQ(json_array_size(json_object_get(chart, "job")), 2u);
  json_t* usual = json_object_get(chart, "usual");
  ASSERT_TRUE(json_is_object(usual));
  EXPECT_LE(json_number_value(json_object_get(usual, "low")), json_number_value(json_object_get(usual, "high")));

  auto unknown = client().Get("/api/v1/anomalies/no_such_1", bearer());
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->status, 404);
  EXPECT_NE(unknown->body.find("\"status\":404"), std::string::npos);
}

TEST_F(ConsoleApiTest, VerdictsAreIdempotentAndExclusive) {
  ASSERT_TRUE(start());
  const std::vector<std::string> ids = anomaly_ids();
  const std::string fp = "/api/v1/anomalies/" + ids[0] + "/false-positive";
  const std::string ack = "/api/v1/anomalies/" + ids[1] + "/acknowledge";
  for (bool first : {true, false}) {
    auto res = client().Post(fp, bearer(), "", "text/plain");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200) << res->body;
    Json body = parse(res->body);
    EXPECT_EQ(json_is_true(json_object_get(body.get(), "changed")), first);
    EXPECT_EQ(str(body.get(), "state"), "false-positive-waiting");
    res = client().Post(ack, bearer(), "", "text/plain");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200);
    EXPECT_EQ(str(parse(res->body).get(), "state"), "acknowledged");
  }
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK WHERE FEEDBACK = 1 AND ANOMALY_UNIQUE_ID = '" +
                  ids[0] + "'"),
            1);
  EXPECT_EQ(client().Post("/api/v1/anomalies/" + ids[0] + "/acknowledge", bearer(), "", "text/plain")->status, 409);
  EXPECT_EQ(client().Post("/api/v1/anomalies/" + ids[1] + "/false-positive", bearer(), "", "text/plain")->status, 409);
  EXPECT_EQ(client().Post("/api/v1/anomalies/nope_1/false-positive", bearer(), "", "text/plain")->status, 404);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK"), 1);

  // The detector's next pass learns the false positive.
  detect();
  Json learned = parse(client().Get("/api/v1/anomalies/" + ids[0], bearer())->body);
  EXPECT_EQ(str(learned.get(), "state"), "false-positive-learned");
  EXPECT_EQ(client().Post(fp, bearer(), "", "text/plain")->status, 200);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK"), 0) << "a learned verdict is not sent again";
}

TEST_F(ConsoleApiTest, FalsePositiveOfAJobNoLongerQueuedIsAConflict) {
  const std::string id = add_anomaly("gone-client", "777");
  {
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess access(db(), SQLITE_OPEN_READWRITE);
    access.execute_query("DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = 'key-777'");
  }
  ASSERT_TRUE(start());
  auto res = client().Post("/api/v1/anomalies/" + id + "/false-positive", bearer(), "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 409);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK"), 0);
}

TEST_F(ConsoleApiTest, StatusGivesTheQueueHistoryModelsAndDays) {
  ASSERT_TRUE(start());
  Json status = parse(client().Get("/api/v1/status", bearer())->body);
  const long long anomalies = static_cast<long long>(anomaly_ids().size());
  EXPECT_EQ(integer(status.get(), "pending_jobs"), 0);
  EXPECT_EQ(integer(status.get(), "awaiting_verdict"), anomalies);
  EXPECT_EQ(integer(status.get(), "history_rows"), count("SELECT COUNT(*) AS N FROM HIST_DATA"));
  EXPECT_EQ(integer(status.get(), "workloads"), 12);
  EXPECT_EQ(integer(status.get(), "calibrated_models"), count("SELECT COUNT(*) AS N FROM DBSCAN_MODEL_PARAMS"));
  EXPECT_EQ(integer(json_object_get(status.get(), "anomalies_by_state"), "open"), anomalies);
  json_t* days = json_object_get(status.get(), "anomalies_per_day");
  ASSERT_EQ(json_array_size(days), 1u);
  EXPECT_EQ(integer(json_array_get(days, 0), "anomalies"), anomalies);
}

TEST_F(ConsoleApiTest, StatusShowsAlertChannelsAndTheJobsThePassCannotJudge) {
  {
    DBAccess file(db(), SQLITE_OPEN_READWRITE);
    file.execute_query(anomaly_schema::alert_db_sql());
    file.execute_query(
        "INSERT INTO ALERT_DELIVERY (ANOMALY_UNIQUE_ID, CHANNEL, STATE, ATTEMPTS, FIRST_SEEN, NEXT_ATTEMPT, "
        "DELIVERED_TIME) VALUES ('a1', 'webhook', 1, 1, 100, 100, 101), ('a2', 'webhook', 2, 9, 100, 100, NULL), "
        "('a3', 'syslog', 1, 1, 100, 100, 101)");
  }
  queue_moved_jobs(2);
  ASSERT_TRUE(start());
  Json status = parse(client().Get("/api/v1/status", bearer())->body);
  json_t* channels = json_object_get(status.get(), "alert_channels");
  ASSERT_EQ(json_array_size(channels), 2u);
  EXPECT_EQ(str(json_array_get(channels, 1), "channel"), "webhook");
  EXPECT_EQ(integer(json_array_get(channels, 1), "delivered"), 1);
  EXPECT_EQ(integer(json_array_get(channels, 1), "given_up"), 1);
  EXPECT_EQ(integer(json_object_get(status.get(), "pending_jobs_not_judgeable"), "unequal_features"), 2);
  const std::string metrics = client().Get("/metrics")->body;
  EXPECT_NE(metrics.find("tsanomaly_alerts_delivered{channel=\"webhook\"} 1\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("tsanomaly_alerts_given_up{channel=\"webhook\"} 1\n"), std::string::npos) << metrics;
  const std::string cookie = sign_in();
  const std::string page = client().Get("/status", {{"Cookie", cookie}})->body;
  EXPECT_NE(page.find("JUDGE_ON_FALLBACK_FEATURES=1"), std::string::npos) << page;
  EXPECT_NE(page.find("data-channel=\"webhook\""), std::string::npos) << page;
}

// Every line of the text exposition format: HELP and TYPE before a family's
// samples, names and label sets well formed, values numbers.
TEST_F(ConsoleApiTest, MetricsFollowTheExpositionFormat) {
  ASSERT_TRUE(start());
  ASSERT_EQ(client().Post("/api/v1/anomalies/" + anomaly_ids().front() + "/acknowledge", bearer(), "", "text/plain")
                ->status,
            200);
  auto res = client().Get("/metrics");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  const std::regex help(R"(# HELP (tsanomaly_[a-z_]+) [^\n]+)");
  const std::regex type(R"(# TYPE (tsanomaly_[a-z_]+) (gauge|counter))");
  const std::regex sample(R"((tsanomaly_[a-z_]+)(\{[a-z_]+="[^"\\\n]*"(,[a-z_]+="[^"\\\n]*")*\})? (-?[0-9.e+]+))");
  std::set<std::string> helped, typed;
  std::map<std::string, double> values;
  std::istringstream lines(res->body);
  for (std::string line; std::getline(lines, line);) {
    std::smatch m;
    if (std::regex_match(line, m, help)) {
      EXPECT_TRUE(helped.insert(m[1]).second) << "second HELP: " << line;
    } else if (std::regex_match(line, m, type)) {
      EXPECT_TRUE(helped.count(m[1])) << "TYPE before HELP: " << line;
      typed.insert(m[1]);
    } else if (std::regex_match(line, m, sample)) {
      EXPECT_TRUE(typed.count(m[1])) << "sample before TYPE: " << line;
      values[std::string(m[1]) + std::string(m[2])] = std::stod(m[4]);
    } else {
      ADD_FAILURE() << "not exposition format: '" << line << "'";
    }
  }
  const double anomalies = static_cast<double>(anomaly_ids().size());
  EXPECT_EQ(values["tsanomaly_pending_jobs"], 0);
  EXPECT_EQ(values["tsanomaly_jobs_awaiting_verdict"], anomalies);
  EXPECT_EQ(values["tsanomaly_anomalies{state=\"open\"}"], anomalies - 1);
  EXPECT_EQ(values["tsanomaly_anomalies{state=\"acknowledged\"}"], 1);
  EXPECT_EQ(values["tsanomaly_false_positives_learned"], 0);
  EXPECT_EQ(values["tsanomaly_history_rows"], count("SELECT COUNT(*) AS N FROM HIST_DATA"));
  EXPECT_EQ(values["tsanomaly_workloads"], 12);
  EXPECT_EQ(values["tsanomaly_calibrated_models"], count("SELECT COUNT(*) AS N FROM DBSCAN_MODEL_PARAMS"));
  EXPECT_EQ(values["tsanomaly_newest_detection_timestamp_seconds"],
            count("SELECT MAX(DETECTION_TIME) AS N FROM ANOMALY_DATA"));
}

TEST_F(ConsoleApiTest, MetricsPassPromtool) {
  if (access("/usr/bin/promtool", X_OK) != 0) GTEST_SKIP() << "promtool is not installed; run scripts/install-deps";
  ASSERT_TRUE(start());
  auto res = client().Get("/metrics");
  ASSERT_TRUE(res);
  tsanomaly_test::TempDir::write(dir.file("metrics.txt"), res->body);
  tsanomaly_test::ChildProcess promtool({"/bin/sh", "-c", "/usr/bin/promtool check metrics < " + dir.file("metrics.txt")});
  EXPECT_EQ(tsanomaly_test::ChildProcess::run(promtool), 0) << promtool.out() << promtool.err();
}

TEST_F(ConsoleApiTest, HostileClientNamesComeBackEscaped) {
  const std::string hostile = "<script>alert(1)</script> \"q\" 'a' & \x01\x1b[31m \xff\xfe end";
  const std::string id = add_anomaly(hostile, "4242");
  ASSERT_TRUE(start());
  Json list = parse(client().Get("/api/v1/anomalies?limit=500", bearer())->body);
  bool found = false;
  json_t* items = json_object_get(list.get(), "anomalies");
  for (std::size_t i = 0; i < json_array_size(items); ++i) {
    if (str(json_array_get(items, i), "id") == id) {
      found = true;
      EXPECT_EQ(str(json_array_get(items, i), "client"), text::as_utf8(hostile));
    }
  }
  EXPECT_TRUE(found);

  const std::string cookie = sign_in();
  for (const std::string& path : {std::string("/"), "/anomalies/" + id, std::string("/status")}) {
    auto page = client().Get(path, {{"Cookie", cookie}});
    ASSERT_TRUE(page);
    ASSERT_EQ(page->status, 200) << path;
    // The console's own script is the only one: nothing the client sent became markup.
    const std::size_t own = page->body.find("<script src=\"/console.js\"></script>");
    EXPECT_NE(own, std::string::npos) << path;
    EXPECT_EQ(page->body.find("<script", own + 1), std::string::npos) << path;
    EXPECT_EQ(page->body.find("<script"), own) << path;
    EXPECT_EQ(page->body.find('\x1b'), std::string::npos) << path;
    EXPECT_EQ(page->body.find('\xff'), std::string::npos) << path;
  }
  auto page = client().Get("/anomalies/" + id, {{"Cookie", cookie}});
  EXPECT_NE(page->body.find("&lt;script&gt;alert(1)&lt;/script&gt; &quot;q&quot; &#39;a&#39; &amp;"), std::string::npos)
      << page->body.substr(0, 2000);
}

TEST_F(ConsoleApiTest, AVerdictWaitsForTheDetectorsWriteLock) {
  ASSERT_TRUE(start());
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess detector(db(), SQLITE_OPEN_READWRITE);
  detector.execute_query("BEGIN IMMEDIATE");
  std::thread release([&detector] {
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    detector.execute_query("COMMIT");
  });
  const auto started = std::chrono::steady_clock::now();
  auto res = client().Post("/api/v1/anomalies/" + anomaly_ids().front() + "/acknowledge", bearer(), "", "text/plain");
  const auto waited = std::chrono::steady_clock::now() - started;
  release.join();
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200) << res->body;
  EXPECT_GE(waited, std::chrono::milliseconds(700)) << "the verdict did not wait for the lock";
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 1);
}

TEST_F(ConsoleApiTest, ADatabaseGoneWhileServingGivesA500InJson) {
  ASSERT_TRUE(start());
  ASSERT_EQ(std::rename(db().c_str(), (db() + ".moved").c_str()), 0);
  auto res = client().Get("/api/v1/status", bearer());
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 500);
  EXPECT_NE(res->body.find("\"status\":500"), std::string::npos) << res->body;
  EXPECT_EQ(res->body.find(dir.path()), std::string::npos) << "the error names no path to the client";
}

TEST_F(ConsoleApiTest, StartUpFailuresSayWhy) {
  std::string out, err;
  EXPECT_EQ(ctl({"serve", "--help"}, &out), 0);
  EXPECT_NE(out.find("usage: tsanomalyctl serve DB"), std::string::npos);
  EXPECT_EQ(ctl({"serve", dir.file("missing.db"), "--listen", "127.0.0.1:0"}, nullptr, &err), 1);
  EXPECT_NE(err.find("cannot read database"), std::string::npos) << err;
  ASSERT_TRUE(start());
  EXPECT_EQ(ctl({"serve", db(), "--listen", "127.0.0.1:" + std::to_string(port)}, nullptr, &err), 1);
  EXPECT_NE(err.find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos) << err;
}

// A JOB_ID holding a line break, or thousands of characters, gave an id no
// address could carry (404, 414): each anomaly is reached by its handle, its
// page opens and both verdicts land, for several clients at once.
TEST_F(ConsoleApiTest, EveryAnomalyIsReachableAndJudgeableWhateverItsIdHolds) {
  ASSERT_TRUE(start());
  const std::string crlf = add_anomaly("web-crlf", "7\r\n");
  const std::string longest = add_anomaly("web-long", std::string(9000, '9'));
  const std::string cookie = sign_in();
  const struct {
    std::string client, id, verdict, recorded;
  } cases[] = {{"web-crlf", crlf, "acknowledge", "SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1 AND "
                                                  "ANOMALY_UNIQUE_ID = ?"},
               {"web-long", longest, "false-positive", "SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK WHERE "
                                                         "FEEDBACK = 1 AND ANOMALY_UNIQUE_ID = ?"}};
  std::vector<std::thread> clients;
  for (const auto& c : cases) {
    clients.emplace_back([&] {
      Json list = parse(client().Get("/api/v1/anomalies?client=" + c.client, bearer())->body);
      json_t* item = json_array_get(json_object_get(list.get(), "anomalies"), 0);
      ASSERT_EQ(str(item, "id"), c.id);
      const std::string address = str(item, "url");
      EXPECT_LT(address.size(), 100u) << address;
      auto page = client().Get(address, {{"Cookie", cookie}});
      ASSERT_TRUE(page);
      EXPECT_EQ(page->status, 200) << page->body;
      auto api = client().Get("/api/v1" + address, bearer());
      ASSERT_TRUE(api);
      ASSERT_EQ(api->status, 200) << api->body;
      EXPECT_EQ(str(parse(api->body).get(), "id"), c.id);
      auto verdict = client().Post("/api/v1" + address + "/" + c.verdict, bearer(), "", "text/plain");
      ASSERT_TRUE(verdict);
      EXPECT_EQ(verdict->status, 200) << verdict->body;
    });
  }
  for (std::thread& t : clients) t.join();
  for (const auto& c : cases) {
    DBAccess reader(db(), SQLITE_OPEN_READONLY);
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement st(reader.handle, c.recorded);
    st.bind(1, c.id);
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows rows;
    reader.read_data_prepared(st, rows);
    EXPECT_EQ(rows[0]["N"], 1) << c.client;
  }
  // A handle naming no anomaly is a plain not-found.
  EXPECT_EQ(client().Get("/api/v1/anomalies/~" + std::string(64, 'a'), bearer())->status, 404);
}

// A trigger planted on a detector table: the console writes no verdict and
// says why, and the anomalies stay as they were.
TEST_F(ConsoleApiTest, AVerdictIsRefusedWhileAForeignTriggerSitsOnADetectorTable) {
  ASSERT_TRUE(start());
  const std::vector<std::string> ids = anomaly_ids();
  const long long anomalies = count("SELECT COUNT(*) AS N FROM ANOMALY_DATA");
  DBAccess(db(), SQLITE_OPEN_READWRITE)
      .execute_query("CREATE TRIGGER ERASE AFTER UPDATE ON ANOMALY_DATA BEGIN DELETE FROM ANOMALY_DATA; END");
  auto res = client().Post("/api/v1/anomalies/" + ids[0] + "/acknowledge", bearer(), "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 409);
  EXPECT_NE(res->body.find("trigger or view on the detector's tables"), std::string::npos) << res->body;
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA"), anomalies);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 0);
}
