// The anomaly report: the ANOMALY_DATA row written for an anomalous job.
#include <gtest/gtest.h>
#include <jansson.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/JsonChecks.h"
#include "tests/support/ServiceTestFixture.h"
#include "storage/Exception.h"

namespace {

using FeatureValues = DetectionService::FeatureValues;
using AnomalyStats = DetectionService::AnomalyStats;

const std::string kInsertAnomalySql = "INSERT OR IGNORE INTO ANOMALY_DATA VALUES (?, ?, ?, ?, ?, ?)";

using tsanomaly_test::JsonPtr;
using tsanomaly_test::parse;
using tsanomaly_test::string_member;

// ---------------------------------------------------------------------------
// The anomaly report.

class ReportAnomalyTest : public ServiceTestFixture {
 protected:
  void report(const Row& record, const AnomalyStats& stats = {{"NUM_FILES", stat(5120, 4000, 4500)}},
              int full_feature_set = 0, double distance = 2.5) {
    service->report_anomaly(record, closest_to(0, distance), Rows{}, std::vector<int>{}, full_feature_set, stats);
  }

  Rows anomalies() { return query("SELECT * FROM ANOMALY_DATA ORDER BY ANOMALY_UNIQUE_ID"); }
};

TEST_F(ReportAnomalyTest, InsertsOneRowWithIdPayloadStateKeyClientAndTime) {
  const Row record = job("key-1", "vm1", {{"JOB_ID", "4711"}, {"BACKUP_TIME", "1600000000"}, {"CLIENT", "host-z"}});
  const AnomalyStats stats = {{"NUM_FILES", stat(5120, 4000, 4500)}};
  report(record, stats, 0, 2.5);

  const Rows rows = anomalies();
  ASSERT_EQ(rows.size(), 1u);
  Row row = rows[0];
  EXPECT_EQ(row["ANOMALY_UNIQUE_ID"].text(), "4711_1600000000");
  EXPECT_EQ(row["ANOMALY_PAYLOAD"].text(),
            service->get_json_payload_for_anomaly(record, stats, 0, "4711_1600000000", closest_to(0, 2.5)));
  EXPECT_EQ(row["ANOMALY_STATE"].text(), "0");
  EXPECT_EQ(row["DETECTION_KEY"].text(), "key-1");
  EXPECT_EQ(row["CLIENT"].text(), "host-z");
  EXPECT_EQ(row["DETECTION_TIME"].text(), "1700000000");

  const JsonPtr root = parse(row["ANOMALY_PAYLOAD"].text());
  const json_t* attributes = root ? json_object_get(root.get(), "Attributes") : nullptr;
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(string_member(attributes, "anomalyId"), "4711_1600000000");
  EXPECT_EQ(string_member(attributes, "clientName"), "host-z");
  EXPECT_EQ(string_member(attributes, "summary"), "Backup files count");
  EXPECT_EQ(string_member(attributes, "score"), "2.50");
  EXPECT_EQ(string_member(root.get(), "DetectionTime"), "2023-11-14T22:13:20.66Z");
}

TEST_F(ReportAnomalyTest, RunsOnlyThePositionalInsertOrIgnore) {
  const Row record = job("key-1");
  trace_sql();
  report(record);
  EXPECT_EQ(traced, (std::vector<std::string>{kInsertAnomalySql}));
}

TEST_F(ReportAnomalyTest, SecondReportOfTheSameJobKeepsTheFirstRowAndPayload) {
  report(job("key-1", "vm1", {{"CLIENT", "first"}}), {{"NUM_FILES", stat(5120, 4000, 4500)}}, 0, 2.5);
  const Rows first = anomalies();
  ASSERT_EQ(first.size(), 1u);

  service->set_clock([] { return kNow + 3600; });
  EXPECT_NO_THROW(report(job("key-2", "vm1", {{"CLIENT", "second"}}), {{"IMAGE_SIZE", stat(1, 2, 3)}}, 1, 9.0));

  const Rows after = anomalies();
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after, first);
  Row row = after[0];
  EXPECT_EQ(row["ANOMALY_UNIQUE_ID"].text(), "42_1000000");
  EXPECT_EQ(row["DETECTION_KEY"].text(), "key-1");
  EXPECT_EQ(row["CLIENT"].text(), "first");
  EXPECT_EQ(row["DETECTION_TIME"].text(), "1700000000");
}

TEST_F(ReportAnomalyTest, SameJobWithAnotherBackupTimeIsANewAnomaly) {
  report(job("key-1", "vm1", {{"BACKUP_TIME", "1000"}}));
  report(job("key-2", "vm1", {{"BACKUP_TIME", "2000"}}));
  const Rows rows = anomalies();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].at("ANOMALY_UNIQUE_ID").text(), "42_1000");
  EXPECT_EQ(rows[1].at("ANOMALY_UNIQUE_ID").text(), "42_2000");
}

TEST_F(ReportAnomalyTest, JobIdTextIsKeptInTheIdWhileThePayloadCarriesItsInteger) {
  report(job("key-1", "vm1", {{"JOB_ID", "00123"}, {"BACKUP_TIME", "1600000000"}}));
  Rows rows = anomalies();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["ANOMALY_UNIQUE_ID"].text(), "00123_1600000000");

  const JsonPtr root = parse(rows[0]["ANOMALY_PAYLOAD"].text());
  const json_t* attributes = root ? json_object_get(root.get(), "Attributes") : nullptr;
  ASSERT_NE(attributes, nullptr);
  const json_t* jobid = json_object_get(attributes, "jobid");
  ASSERT_TRUE(json_is_integer(jobid));
  EXPECT_EQ(json_integer_value(jobid), 123);
  EXPECT_EQ(string_member(attributes, "anomalyId"), "00123_1600000000");
}

TEST_F(ReportAnomalyTest, BackupTimeBeyond32BitsIsTruncatedInTheId) {
  report(job("key-1", "vm1", {{"BACKUP_TIME", "4294967297"}}));
  Rows rows = anomalies();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["ANOMALY_UNIQUE_ID"].text(), "42_1");
}

TEST_F(ReportAnomalyTest, DetectionTimeBeyond32BitsIsTruncated) {
  service->set_clock([] { return static_cast<time_t>(4294967301LL); });
  report(job("key-1"));
  Rows rows = anomalies();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["DETECTION_TIME"].text(), "5");
  EXPECT_EQ(string_member(parse(rows[0]["ANOMALY_PAYLOAD"].text()).get(), "DetectionTime"),
            "2106-02-07T06:28:21.66Z");
}

TEST_F(ReportAnomalyTest, MissingAnomalyTableThrowsThePrepareFailure) {
  sql("DROP TABLE ANOMALY_DATA");
  try {
    report(job("key-1"));
    FAIL() << "report_anomaly did not throw";
  } catch (const Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception& e) {
    EXPECT_EQ(std::string(e.what()), "sqlite prepare statement failed for query - " + kInsertAnomalySql);
  }
}

}  // namespace
