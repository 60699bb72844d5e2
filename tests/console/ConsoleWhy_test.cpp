// Why an anomaly was flagged and its workload's page, over real sockets: the
// replayed pass for a job still queued, what can still be said once it left
// the queue, and the workload's charts, anomalies, model and next pass.
#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>

#include "storage/DBAccess.h"
#include "tests/console/ConsoleFixture.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

Json why_of(const std::string& body) {
  Json root(json_loads(body.c_str(), 0, nullptr), json_decref);
  EXPECT_TRUE(root) << body;
  if (root) json_incref(json_object_get(root.get(), "why"));
  return Json(root ? json_object_get(root.get(), "why") : nullptr, json_decref);
}

}  // namespace

using ConsoleWhyTest = ConsoleFixture;

TEST_F(ConsoleWhyTest, AQueuedJobIsExplainedByTheReplayedPass) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  auto res = client().Get("/api/v1/anomalies/" + id, bearer());
  ASSERT_TRUE(res);
  Json why = why_of(res->body);
  ASSERT_TRUE(why);
  EXPECT_TRUE(json_is_true(json_object_get(why.get(), "replayed"))) << res->body;
  EXPECT_STREQ(json_string_value(json_object_get(why.get(), "outcome_now")), "anomaly");
  EXPECT_EQ(json_integer_value(json_object_get(why.get(), "label")), -1);
  json_t* nearest = json_object_get(why.get(), "nearest_cluster");
  ASSERT_TRUE(json_is_object(nearest));
  bool outside = false;
  json_t* features = json_object_get(nearest, "features");
  for (std::size_t i = 0; i < json_array_size(features); ++i) {
    outside = outside || json_is_false(json_object_get(json_array_get(features, i), "in_range"));
  }
  EXPECT_TRUE(outside) << "a reported job lies outside some range of its nearest cluster";
  json_t* rules = json_object_get(why.get(), "rules");
  ASSERT_EQ(json_array_size(rules), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(rules, i), "result")), "refused");
  }
  auto page = client().Get("/anomalies/" + id, {{"Cookie", sign_in()}});
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("Why this was flagged"), std::string::npos);
  EXPECT_NE(page->body.find("data-rule-result=\"refused\""), std::string::npos);
}

TEST_F(ConsoleWhyTest, AJobThatLeftTheQueueSaysWhatCanStillBeSaid) {
  const std::string id = anomaly_ids().front();
  {
    DBAccess file(db(), SQLITE_OPEN_READWRITE);
    file.execute_query("DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = (SELECT DETECTION_KEY FROM ANOMALY_DATA "
                       "WHERE ANOMALY_UNIQUE_ID = '" + id + "')");
  }
  ASSERT_TRUE(start());
  auto res = client().Get("/api/v1/anomalies/" + id, bearer());
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  Json why = why_of(res->body);
  ASSERT_TRUE(why);
  EXPECT_TRUE(json_is_false(json_object_get(why.get(), "replayed")));
  EXPECT_NE(std::string(json_string_value(json_object_get(why.get(), "no_replay"))).find("left the detection queue"),
            std::string::npos);
  EXPECT_EQ(json_object_get(why.get(), "nearest_cluster"), nullptr) << "nothing is invented";
  auto workload = client().Get("/workloads?anomaly=" + id, bearer());
  ASSERT_TRUE(workload);
  EXPECT_EQ(workload->status, 404) << "a job neither queued nor in the history names no workload";
  EXPECT_NE(workload->body.find("no longer known"), std::string::npos);
}

TEST_F(ConsoleWhyTest, TheWorkloadPageChartsMarksAndJudgesItsJobs) {
  queue_moved_jobs(1);
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  ASSERT_TRUE(client().Post("/api/v1/anomalies/" + id + "/acknowledge", bearer(), "", "text/plain"));
  auto res = client().Get("/workloads?anomaly=" + id, bearer());
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  const std::string& page = res->body;
  std::size_t charts = 0;
  const std::string chart = "<svg class=\"chart\"";
  for (std::size_t at = page.find(chart); at != std::string::npos; at = page.find(chart, at + 1)) ++charts;
  EXPECT_EQ(charts, 5u);
  EXPECT_NE(page.find("circle class=\"mark mark-acknowledged\""), std::string::npos);
  EXPECT_NE(page.find("data-anomaly-id=\"" + id + "\""), std::string::npos);
  EXPECT_NE(page.find("<p class=\"model\">Eps <strong>"), std::string::npos);
  for (const std::string& bad : {std::string("/workloads"), std::string("/workloads?anomaly=no-such"),
                                 "/workloads?days=0&anomaly=" + id}) {
    auto refused = client().Get(bad, bearer());
    ASSERT_TRUE(refused);
    EXPECT_TRUE(refused->status == 400 || refused->status == 404) << bad;
    EXPECT_NE(refused->body.find("<div class=\"empty\">"), std::string::npos) << bad;
  }
}
