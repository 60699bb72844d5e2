// One verdict for many anomalies over real sockets (POST /api/v1/verdicts):
// per anomaly what changed and what was refused, by the rules of a single
// verdict; everything a filter matches; the reason kept in VERDICT_REASON;
// a request without any body accepted as one with an empty body.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "storage/DBAccess.h"
#include "tests/console/ConsoleFixture.h"
#include "console/UrlText.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

Json parse(const std::string& text) {
  Json json(json_loads(text.c_str(), 0, nullptr), json_decref);
  EXPECT_TRUE(json) << "not JSON: " << text;
  return json;
}

// The outcome of each id in a verdicts answer.
std::map<std::string, std::string> outcomes(const std::string& body) {
  Json root = parse(body);
  std::map<std::string, std::string> by_id;
  json_t* results = json_object_get(root.get(), "results");
  for (std::size_t i = 0; i < json_array_size(results); ++i) {
    json_t* item = json_array_get(results, i);
    by_id[json_string_value(json_object_get(item, "id"))] = json_string_value(json_object_get(item, "outcome"));
  }
  return by_id;
}

// One request written by hand, as curl -X POST sends it: no body and no
// Content-Length. Returns the status line.
std::string raw_status_line(int port, const std::string& request) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return "";
  }
  EXPECT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string answer;
  char buffer[4096];
  ssize_t n = 0;
  while (answer.find("\r\n") == std::string::npos && (n = read(fd, buffer, sizeof buffer)) > 0) answer.append(buffer, n);
  close(fd);
  return answer.substr(0, answer.find("\r\n"));
}

}  // namespace

using ConsoleTriageTest = ConsoleFixture;

TEST_F(ConsoleTriageTest, ABatchSaysPerAnomalyWhatChangedAndWhatWasRefused) {
  const std::vector<std::string> ids = anomaly_ids();
  ASSERT_GE(ids.size(), 4u);
  const std::string open = ids[0], acknowledged = ids[1], learned = ids[2], gone = ids[3];
  ASSERT_TRUE(start());
  ASSERT_EQ(client().Post("/api/v1/anomalies/" + acknowledged + "/acknowledge", bearer(), "", "text/plain")->status,
            200);
  ASSERT_EQ(client().Post("/api/v1/anomalies/" + learned + "/false-positive", bearer(), "", "text/plain")->status,
            200);
  stop();
  detect();
  {
    DBAccess file(db(), SQLITE_OPEN_READWRITE);
    file.execute_query("DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = (SELECT DETECTION_KEY FROM ANOMALY_DATA "
                       "WHERE ANOMALY_UNIQUE_ID = '" + gone + "')");
  }
  ASSERT_TRUE(start());
  const std::string ask = "/api/v1/verdicts?verdict=false-positive&reason=" + percent_encode("backup window moved") +
                          "&id=" + open + "&id=" + acknowledged + "&id=" + learned + "&id=" + gone + "&id=no-such";
  auto res = client().Post(ask, bearer(), "", "text/plain");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const auto by_id = outcomes(res->body);
  EXPECT_EQ(by_id.at(open), "recorded");
  EXPECT_EQ(by_id.at(acknowledged), "conflict");
  EXPECT_EQ(by_id.at(learned), "already");
  EXPECT_EQ(by_id.at(gone), "job-gone");
  EXPECT_EQ(by_id.at("no-such"), "unknown");
  EXPECT_EQ(json_integer_value(json_object_get(parse(res->body).get(), "changed")), 1);
  EXPECT_EQ(count("SELECT COUNT(*) FROM ANOMALY_DATA_FEEDBACK WHERE ANOMALY_UNIQUE_ID = '" + open + "'"), 1);
  EXPECT_EQ(count("SELECT COUNT(*) FROM VERDICT_REASON WHERE ANOMALY_UNIQUE_ID = '" + open +
                  "' AND VERDICT = 'false-positive' AND REASON = 'backup window moved'"),
            1);
  EXPECT_EQ(count("SELECT COUNT(*) FROM VERDICT_REASON"), 1) << "a reason is kept only beside a verdict recorded";
}

TEST_F(ConsoleTriageTest, EverythingAFilterMatchesTakesTheVerdict) {
  ASSERT_TRUE(start());
  const std::string client_name = "batch-client";
  add_anomaly(client_name, "990001");
  add_anomaly(client_name, "990002");
  const long long others = count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE CLIENT <> '" + client_name + "'");
  auto res = client().Post("/api/v1/verdicts?verdict=acknowledge&scope=filter&client=BATCH-client", bearer(), "",
                           "text/plain");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(outcomes(res->body).size(), 2u);
  EXPECT_EQ(count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE CLIENT = '" + client_name + "' AND ANOMALY_STATE = 1"), 2);
  EXPECT_EQ(count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE CLIENT <> '" + client_name + "' AND ANOMALY_STATE = 0"),
            others);
}

TEST_F(ConsoleTriageTest, AMalformedBatchIsRefusedSayingWhy) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  const std::pair<std::string, std::string> cases[] = {
      {"verdict=maybe&id=" + id, "verdict must be"},
      {"id=" + id, "verdict must be"},
      {"verdict=acknowledge", "no anomaly chosen"},
      {"verdict=acknowledge&scope=everything", "scope must be"},
      {"verdict=acknowledge&id=", "is empty"},
      {"verdict=acknowledge&scope=filter&state=closed", "unknown state"},
      {"verdict=acknowledge&id=" + id + "&reason=" + std::string(1001, 'r'), "reason is longer"},
  };
  for (const auto& [query, words] : cases) {
    auto res = client().Post("/api/v1/verdicts", bearer(), query, "application/x-www-form-urlencoded");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400) << query;
    EXPECT_NE(res->body.find(words), std::string::npos) << query << ": " << res->body;
  }
  EXPECT_EQ(count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 0);
}

TEST_F(ConsoleTriageTest, APostWithoutBodyOrLengthIsAccepted) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  const std::string head = "Host: 127.0.0.1:" + std::to_string(port) + "\r\nAuthorization: Bearer " + token +
                           "\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(raw_status_line(port, "POST /api/v1/anomalies/" + id + "/acknowledge HTTP/1.1\r\n" + head),
            "HTTP/1.1 200 OK");
  EXPECT_EQ(count("SELECT ANOMALY_STATE FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID = '" + id + "'"), 1);
  EXPECT_EQ(raw_status_line(port, "POST /api/v1/verdicts?verdict=acknowledge&scope=filter HTTP/1.1\r\n" + head),
            "HTTP/1.1 200 OK");
  EXPECT_EQ(count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE ANOMALY_STATE = 0"), 0);
}

TEST_F(ConsoleTriageTest, TheCsvExportKeepsHostileNamesInertAndTheFilter) {
  const std::string hostile = "=HYPERLINK(\"http://evil.example\",\"x\"),\r\n@SUM(1)";
  const std::string id = add_anomaly(hostile, "990101");
  add_anomaly("+plain", "990102");
  ASSERT_TRUE(start());
  auto res = client().Get("/anomalies.csv?client=" + percent_encode(hostile), {{"Cookie", sign_in()}});
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/csv; charset=utf-8");
  EXPECT_EQ(res->body.rfind("\"id\",", 0), 0u);
  EXPECT_NE(res->body.find("\"" + id + "\""), std::string::npos);
  EXPECT_NE(res->body.find(",\"'=HYPERLINK(\"\"http://evil.example\"\",\"\"x\"\"),\r\n@SUM(1)\","), std::string::npos)
      << res->body;
  EXPECT_EQ(res->body.find("+plain"), std::string::npos) << "the filter is not applied";
  res = client().Get("/anomalies.csv?client=" + percent_encode("+plain") + "&limit=0", {{"Cookie", sign_in()}});
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  EXPECT_NE(res->body.find("limit must be a whole number"), std::string::npos);
}
