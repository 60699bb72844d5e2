#include "contract/AnomalyPayload.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdlib>
#include <string>

namespace {

using anomaly_payload::Row;
using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

class AnomalyPayloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    job["JOB_ID"] = Value(std::string("00123"));
    job["CLIENT"] = Value(std::string("nas-filer-30"));
    job["POLICY"] = Value(std::string("NDMP-Shares-Silver"));
    job["POLICY_TYPE"] = Value(std::string("NDMP"));
    job["SCHEDULE_NAME"] = Value(std::string("Daily-Full"));
    job["DESTINATION_STORAGE_NAME"] = Value(std::string("stu-dd-01"));
  }
  Row job;
  static constexpr time_t kNow = 1700000000;  // 2023-11-14 22:13:20 UTC
};

TEST_F(AnomalyPayloadTest, IdIsTheJobIdTextAndTheBackupTime) {
  EXPECT_EQ(anomaly_payload::anomaly_id("00123", 1600000000), "00123_1600000000");
  EXPECT_EQ(anomaly_payload::anomaly_id("7", -5), "7_-5");
}

TEST_F(AnomalyPayloadTest, AttributeTextsFollowTheirForm) {
  EXPECT_EQ(anomaly_payload::attribute_text(PayloadTextForm::Size, {1536, 1024000, 1229312}),
            "1.50 MB (Usual: 1000.00 MB - 1200.50 MB)");
  EXPECT_EQ(anomaly_payload::attribute_text(PayloadTextForm::Count, {5120.9, 99.9, 4500}), "5120 (Usual: 99 - 4500)");
  EXPECT_EQ(anomaly_payload::attribute_text(PayloadTextForm::Ratio, {3.5, 10.25, 12.345678}),
            "3.5 (Usual: 10.25 - 12.3457)");
}

TEST_F(AnomalyPayloadTest, BuiltDocumentParsesBackToTheSameFields) {
  const AnomalyStats stats = {{"TOTAL_TIME", {30752, 4045, 5250}}, {"IMAGE_SIZE", {2048, 1024, 1536}}};
  const std::string document =
      anomaly_payload::build(job, stats, 1, "00123_1600000000", ClosestClusterInfo{2, 3.274}, kNow);
  const anomaly_payload::Fields fields = anomaly_payload::parse(document);
  EXPECT_EQ(fields.detection_time, "2023-11-14T22:13:20.66Z");
  EXPECT_EQ(fields.job_id, 123);
  EXPECT_EQ(fields.client, "nas-filer-30");
  EXPECT_EQ(fields.policy, "NDMP-Shares-Silver");
  EXPECT_EQ(fields.policy_type, "NDMP");
  EXPECT_EQ(fields.schedule_name, "Daily-Full");
  EXPECT_EQ(fields.storage_name, "stu-dd-01");
  EXPECT_EQ(fields.anomaly_id, "00123_1600000000");
  EXPECT_EQ(fields.summary, "Anomaly image size,Total time");
  EXPECT_EQ(fields.count, "2");
  EXPECT_EQ(fields.score, "3.27");
  ASSERT_EQ(fields.attributes.size(), 2u);
  EXPECT_EQ(fields.attributes[0].first, "anomalyImageSize");
  EXPECT_EQ(fields.attributes[0].second, "2.00 MB (Usual: 1.00 MB - 1.50 MB)");
  EXPECT_EQ(fields.attributes[1].first, "anomalyTimeTaken");
  EXPECT_EQ(fields.attributes[1].second, "30752 (Usual: 4045 - 5250)");
}

TEST_F(AnomalyPayloadTest, FallbackSetShowsOnlyItsTwoFeatures) {
  const AnomalyStats stats = {{"TOTAL_TIME", {30752, 4045, 5250}}, {"NUM_FILES", {10, 100, 200}}};
  const anomaly_payload::Fields fields =
      anomaly_payload::parse(anomaly_payload::build(job, stats, 0, "x_1", ClosestClusterInfo{1, 1.0}, kNow));
  EXPECT_EQ(fields.summary, "Backup files count");
  EXPECT_EQ(fields.count, "1");
  ASSERT_EQ(fields.attributes.size(), 1u);
  EXPECT_EQ(fields.attributes[0].first, "anomalyBackupFilesCount");
}

TEST_F(AnomalyPayloadTest, NamesThatAreNotUtf8AreRepairedNotDropped) {
  job["CLIENT"] = Value(std::string("caf\xE9"));
  const anomaly_payload::Fields fields =
      anomaly_payload::parse(anomaly_payload::build(job, {}, 1, "x_1", ClosestClusterInfo{}, kNow));
  EXPECT_EQ(fields.client, "caf\xEF\xBF\xBD");
  EXPECT_EQ(fields.summary, "");
  EXPECT_EQ(fields.count, "0");
}

TEST_F(AnomalyPayloadTest, DamagedDocumentsGiveEmptyFields) {
  for (const char* document : {"", "not json", "[1,2]", "{\"Attributes\": 5}", "{\"Attributes\": {\"jobid\": \"x\"}}"}) {
    const anomaly_payload::Fields fields = anomaly_payload::parse(document);
    EXPECT_EQ(fields.client, "") << document;
    EXPECT_EQ(fields.job_id, 0) << document;
    EXPECT_TRUE(fields.attributes.empty()) << document;
  }
}

TEST_F(AnomalyPayloadTest, SummaryNamesAreSplitAndTrimmed) {
  EXPECT_EQ(anomaly_payload::summary_names("Anomaly image size,Backup files count"),
            (std::vector<std::string>{"Anomaly image size", "Backup files count"}));
  EXPECT_EQ(anomaly_payload::summary_names(" Total time ,, "), (std::vector<std::string>{"Total time"}));
  EXPECT_TRUE(anomaly_payload::summary_names("").empty());
}

TEST_F(AnomalyPayloadTest, SizeTextsScaleBackToKilobytes) {
  EXPECT_EQ(anomaly_payload::text_to_stored(PayloadTextForm::Size), 1024.0);
  EXPECT_EQ(anomaly_payload::text_to_stored(PayloadTextForm::Count), 1.0);
  EXPECT_EQ(anomaly_payload::text_to_stored(PayloadTextForm::Ratio), 1.0);
}

TEST(AnomalyPayloadReading, SizeTextGivesMegabytesAndItsParts) {
  const auto reading = anomaly_payload::parse_reading("1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)");
  ASSERT_TRUE(reading);
  EXPECT_EQ(reading->current_text, "1536.00 MB");
  EXPECT_EQ(reading->low_text, "1000.00 MB");
  EXPECT_EQ(reading->high_text, "1200.50 MB");
  EXPECT_DOUBLE_EQ(reading->current, 1536.0);
  EXPECT_DOUBLE_EQ(reading->low, 1000.0);
  EXPECT_DOUBLE_EQ(reading->high, 1200.5);
}

TEST(AnomalyPayloadReading, CountRatioAndNegativeRanges) {
  auto count = anomaly_payload::parse_reading("5120 (Usual: 4000 - 4500)");
  ASSERT_TRUE(count);
  EXPECT_DOUBLE_EQ(count->current, 5120);
  EXPECT_DOUBLE_EQ(count->low, 4000);
  EXPECT_DOUBLE_EQ(count->high, 4500);
  auto ratio = anomaly_payload::parse_reading("3.5 (Usual: 10.25 - 12.3457)");
  ASSERT_TRUE(ratio);
  EXPECT_DOUBLE_EQ(ratio->current, 3.5);
  EXPECT_DOUBLE_EQ(ratio->high, 12.3457);
  // A cluster without members: the range -1 - -1.
  auto none = anomaly_payload::parse_reading("7 (Usual: -1 - -1)");
  ASSERT_TRUE(none);
  EXPECT_DOUBLE_EQ(none->low, -1);
  EXPECT_DOUBLE_EQ(none->high, -1);
}

TEST(AnomalyPayloadReading, OtherTextsAreNotReadings) {
  for (const char* text : {"", "abc", "5120 (Usual 4000 - 4500)", "5120 (Usual: 4000 4500)", "x (Usual: 1 - 2)",
                           "5120 (Usual: 4000 - 4500", "1 (Usual: 2 - 3) trailing"}) {
    EXPECT_FALSE(anomaly_payload::parse_reading(text)) << text;
  }
}

}  // namespace
