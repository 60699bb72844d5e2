// The console's answers stay bounded whatever a workload's history holds:
// a workload given 150,000 accepted jobs in the charts'
// window still gets an anomaly page and an API answer of bounded size, its
// charts downsampled inside SQLite to at most kMaxHistoryPoints points.
#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>

#include "operator/AnomalyStore.h"
#include "storage/DBAccess.h"
#include "tests/console/ConsoleFixture.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

constexpr long long kManyJobs = 150000;
constexpr std::size_t kAnswerCeilingBytes = 1024 * 1024;

// kManyJobs accepted jobs for the workload of the anomaly's job, one every
// 40 s up to the job's own backup time (the charts' 180 days hold them all).
void flood_history(const std::string& db, const std::string& anomaly_id) {
  DBAccess file(db, SQLITE_OPEN_READWRITE);
  file.execute_query("PRAGMA synchronous = OFF");
  file.execute_query(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(kManyJobs) +
      ") INSERT INTO HIST_DATA SELECT 'flood', q.BACKUP_TIME - 40 * n.i, q.CLIENT, q.POLICY, q.POLICY_TYPE, "
      "q.SCHEDULE_TYPE, q.SCHEDULE_NAME, q.APP_TYPE, 100 + n.i % 7, 5000 + n.i % 11, n.i, 0, 4000 + n.i % 13, 0, 0, "
      "60 + n.i % 5, 2.0, 1, 0, q.DESTINATION_STORAGE_NAME, q.STREAM_NUMBER, q.ASSET_ID, 'flood-' || n.i FROM n, "
      "ANOMALY_DATA a JOIN DATA_TO_PROCESS q ON q.UNIQUE_KEY = a.DETECTION_KEY WHERE a.ANOMALY_UNIQUE_ID = '" +
      anomaly_id + "'");
}

std::size_t longest_chart_history(const std::string& body) {
  std::unique_ptr<json_t, decltype(&json_decref)> root(json_loads(body.c_str(), 0, nullptr), json_decref);
  EXPECT_TRUE(root) << "not JSON";
  if (!root) return 0;
  std::size_t longest = 0;
  json_t* features = json_object_get(root.get(), "features");
  for (std::size_t i = 0; i < json_array_size(features); ++i) {
    json_t* chart = json_object_get(json_array_get(features, i), "chart");
    longest = std::max(longest, json_array_size(json_object_get(chart, "history")));
    EXPECT_TRUE(json_is_true(json_object_get(chart, "history_averaged")));
    EXPECT_GE(json_integer_value(json_object_get(chart, "history_jobs")), kManyJobs);
  }
  return longest;
}

}  // namespace

using ConsoleBoundsTest = ConsoleFixture;

TEST_F(ConsoleBoundsTest, AHugeHistoryGivesBoundedPagesAndAnswers) {
  const std::string id = anomaly_ids().front();
  flood_history(db(), id);
  ASSERT_GE(count("SELECT COUNT(*) FROM HIST_DATA WHERE BACKUP_ID = 'flood'"), kManyJobs);
  ASSERT_TRUE(start());
  const std::string cookie = sign_in();
  auto page = client().Get("/anomalies/" + id, {{"Cookie", cookie}});
  ASSERT_TRUE(page);
  ASSERT_EQ(page->status, 200);
  EXPECT_NE(page->body.find("<svg"), std::string::npos);
  EXPECT_LT(page->body.size(), kAnswerCeilingBytes);
  auto api = client().Get("/api/v1/anomalies/" + id, bearer());
  ASSERT_TRUE(api);
  ASSERT_EQ(api->status, 200);
  EXPECT_LT(api->body.size(), kAnswerCeilingBytes);
  const std::size_t points = longest_chart_history(api->body);
  EXPECT_GT(points, 100u);
  EXPECT_LE(points, static_cast<std::size_t>(kMaxHistoryPoints));
  auto workload = client().Get("/workloads?anomaly=" + id, {{"Cookie", cookie}});
  ASSERT_TRUE(workload);
  ASSERT_EQ(workload->status, 200);
  EXPECT_NE(workload->body.find("means of equal time slices"), std::string::npos);
  EXPECT_LT(workload->body.size(), kAnswerCeilingBytes);
}
