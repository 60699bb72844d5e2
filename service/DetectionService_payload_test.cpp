// The anomaly payload: the JSON document stored with each anomaly.
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


using tsanomaly_test::JsonPtr;
using tsanomaly_test::member_names;
using tsanomaly_test::parse;
using tsanomaly_test::string_member;

// ---------------------------------------------------------------------------
// The anomaly payload.

class PayloadTest : public ServiceTestFixture {
 protected:
  std::string payload(const Row& record, const AnomalyStats& stats, int full_feature_set,
                      const std::string& anomaly_id = "42_1000000", double distance = 1.5) {
    return service->get_json_payload_for_anomaly(record, stats, full_feature_set, anomaly_id,
                                                 closest_to(0, distance));
  }

  // The Attributes object of a payload, kept alive by root.
  const json_t* attributes_of(const JsonPtr& root) {
    const json_t* attributes = root ? json_object_get(root.get(), "Attributes") : nullptr;
    EXPECT_TRUE(json_is_object(attributes));
    return attributes;
  }

  std::string attribute(const Row& record, const AnomalyStats& stats, int full_feature_set, const char* key,
                        double distance = 1.5) {
    const JsonPtr root = parse(payload(record, stats, full_feature_set, "42_1000000", distance));
    const json_t* attributes = attributes_of(root);
    return attributes == nullptr ? "<no attributes>" : string_member(attributes, key);
  }

  // 1536 MB now, 1000 MB to 1200.5 MB usually (all in kilobytes).
  static anomaly_stat image_size_stat() { return stat(1572864, 1024000, 1229312); }
  static anomaly_stat num_files_stat() { return stat(5120, 4000, 4500); }
};

TEST_F(PayloadTest, SerialisedTextHoldsEveryMemberInOrderOfAddition) {
  const AnomalyStats stats = {{"IMAGE_SIZE", image_size_stat()}, {"NUM_FILES", num_files_stat()}};
  EXPECT_EQ(payload(job("u1"), stats, 1, "42_1000000", 3.266),
            "{\"DetectionType\": \"dbscan\", \"DetectionTime\": \"2023-11-14T22:13:20.66Z\", \"SizeUnit\": \"MB\", "
            "\"Attributes\": {\"jobid\": 42, \"clientName\": \"c1\", \"policyName\": \"p1\", "
            "\"policyType\": \"Standard\", \"scheduleName\": \"daily\", "
            "\"anomalyImageSize\": \"1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)\", "
            "\"anomalyBackupFilesCount\": \"5120 (Usual: 4000 - 4500)\", "
            "\"anomalyFeedback\": \"Report as false positive\", \"anomalyId\": \"42_1000000\", "
            "\"summary\": \"Anomaly image size,Backup files count\", \"count\": \"2\", \"score\": \"3.27\", "
            "\"storageName\": \"stu1\"}}");
}

TEST_F(PayloadTest, SerialisedTextOfAllFiveAttributesFollowsTheirTableOrder) {
  const AnomalyStats stats = {{"DEDUP_RATE", stat(3.5, 10.25, 12.345678)},
                              {"TOTAL_TIME", stat(7200.9, 600, 900.5)},
                              {"KB_TRANSFERRED", stat(2048, 512, 1024)},
                              {"NUM_FILES", num_files_stat()},
                              {"IMAGE_SIZE", image_size_stat()}};
  const Row record = job("u9", "vm1",
                         {{"JOB_ID", "7"},
                          {"CLIENT", "host-a"},
                          {"POLICY", "pol-b"},
                          {"POLICY_TYPE", "VMware"},
                          {"SCHEDULE_NAME", "weekly"},
                          {"DESTINATION_STORAGE_NAME", "dedup-pool"}});
  EXPECT_EQ(payload(record, stats, 1, "7_55", 0.0),
            "{\"DetectionType\": \"dbscan\", \"DetectionTime\": \"2023-11-14T22:13:20.66Z\", \"SizeUnit\": \"MB\", "
            "\"Attributes\": {\"jobid\": 7, \"clientName\": \"host-a\", \"policyName\": \"pol-b\", "
            "\"policyType\": \"VMware\", \"scheduleName\": \"weekly\", "
            "\"anomalyImageSize\": \"1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)\", "
            "\"anomalyBackupFilesCount\": \"5120 (Usual: 4000 - 4500)\", "
            "\"anomalyDataTransferred\": \"2.00 MB (Usual: 0.50 MB - 1.00 MB)\", "
            "\"anomalyTimeTaken\": \"7200 (Usual: 600 - 900)\", "
            "\"anomalyDeduplicationRatio\": \"3.5 (Usual: 10.25 - 12.3457)\", "
            "\"anomalyFeedback\": \"Report as false positive\", \"anomalyId\": \"7_55\", "
            "\"summary\": \"Anomaly image size,Backup files count,Data transferred,Total time,Deduplication ratio\", "
            "\"count\": \"5\", \"score\": \"0.00\", \"storageName\": \"dedup-pool\"}}");
}

TEST_F(PayloadTest, JobIdIsTheOnlyIntegerMemberAndEverythingElseIsAString) {
  const AnomalyStats stats = {{"IMAGE_SIZE", image_size_stat()},    {"NUM_FILES", num_files_stat()},
                              {"KB_TRANSFERRED", stat(1, 2, 3)},    {"TOTAL_TIME", stat(1, 2, 3)},
                              {"DEDUP_RATE", stat(1, 2, 3)}};
  const JsonPtr root = parse(payload(job("u1"), stats, 1));
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(member_names(root.get()),
            (std::vector<std::string>{"DetectionType", "DetectionTime", "SizeUnit", "Attributes"}));
  for (const char* key : {"DetectionType", "DetectionTime", "SizeUnit"}) {
    EXPECT_TRUE(json_is_string(json_object_get(root.get(), key))) << key;
  }
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(member_names(attributes),
            (std::vector<std::string>{"jobid", "clientName", "policyName", "policyType", "scheduleName",
                                      "anomalyImageSize", "anomalyBackupFilesCount", "anomalyDataTransferred",
                                      "anomalyTimeTaken", "anomalyDeduplicationRatio", "anomalyFeedback",
                                      "anomalyId", "summary", "count", "score", "storageName"}));
  const char* key;
  json_t* value;
  json_object_foreach(const_cast<json_t*>(attributes), key, value) {
    if (std::string(key) == "jobid") {
      EXPECT_TRUE(json_is_integer(value));
      EXPECT_EQ(json_integer_value(value), 42);
    } else {
      EXPECT_TRUE(json_is_string(value)) << key;
    }
  }
  EXPECT_EQ(string_member(root.get(), "DetectionType"), "dbscan");
  EXPECT_EQ(string_member(root.get(), "SizeUnit"), "MB");
  EXPECT_EQ(string_member(attributes, "anomalyFeedback"), "Report as false positive");
}

TEST_F(PayloadTest, OnlyNumFilesGivesNoImageSizeMemberAndCountOne) {
  const JsonPtr root = parse(payload(job("u1"), {{"NUM_FILES", num_files_stat()}}, 1));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(json_object_get(attributes, "anomalyImageSize"), nullptr);
  EXPECT_EQ(string_member(attributes, "anomalyBackupFilesCount"), "5120 (Usual: 4000 - 4500)");
  EXPECT_EQ(string_member(attributes, "summary"), "Backup files count");
  EXPECT_EQ(string_member(attributes, "count"), "1");
}

TEST_F(PayloadTest, OnlyImageSizeGivesSummaryWithoutTrailingComma) {
  const JsonPtr root = parse(payload(job("u1"), {{"IMAGE_SIZE", image_size_stat()}}, 0));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(json_object_get(attributes, "anomalyBackupFilesCount"), nullptr);
  EXPECT_EQ(string_member(attributes, "summary"), "Anomaly image size");
  EXPECT_EQ(string_member(attributes, "count"), "1");
}

TEST_F(PayloadTest, FallbackFeatureSetHidesFullSetAttributesEvenWhenPresent) {
  const AnomalyStats stats = {{"IMAGE_SIZE", image_size_stat()},   {"NUM_FILES", num_files_stat()},
                              {"KB_TRANSFERRED", stat(1, 2, 3)},   {"TOTAL_TIME", stat(99999, 2, 3)},
                              {"DEDUP_RATE", stat(1, 2, 3)}};
  for (int full_feature_set : {0, 2}) {
    const JsonPtr root = parse(payload(job("u1"), stats, full_feature_set));
    const json_t* attributes = attributes_of(root);
    ASSERT_NE(attributes, nullptr);
    for (const char* hidden : {"anomalyDataTransferred", "anomalyTimeTaken", "anomalyDeduplicationRatio"}) {
      EXPECT_EQ(json_object_get(attributes, hidden), nullptr) << hidden << " with " << full_feature_set;
    }
    EXPECT_EQ(string_member(attributes, "summary"), "Anomaly image size,Backup files count");
    EXPECT_EQ(string_member(attributes, "count"), "2");
  }
}

TEST_F(PayloadTest, FallbackFeatureSetWithOnlyTotalTimeCountsNothing) {
  const JsonPtr root = parse(payload(job("u1"), {{"TOTAL_TIME", stat(99999, 2, 3)}}, 0));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(json_object_get(attributes, "anomalyTimeTaken"), nullptr);
  EXPECT_EQ(string_member(attributes, "summary"), "");
  EXPECT_EQ(string_member(attributes, "count"), "0");
}

TEST_F(PayloadTest, EmptyStatisticsGiveEmptySummaryAndCountZero) {
  const JsonPtr root = parse(payload(job("u1"), {}, 1));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(string_member(attributes, "summary"), "");
  EXPECT_EQ(string_member(attributes, "count"), "0");
  EXPECT_EQ(member_names(attributes),
            (std::vector<std::string>{"jobid", "clientName", "policyName", "policyType", "scheduleName",
                                      "anomalyFeedback", "anomalyId", "summary", "count", "score", "storageName"}));
}

TEST_F(PayloadTest, ImageSizeOf1536KilobytesPrintsAsOneAndAHalfMegabytes) {
  EXPECT_EQ(attribute(job("u1"), {{"IMAGE_SIZE", stat(1536, 1024, 2047)}}, 0, "anomalyImageSize"),
            "1.50 MB (Usual: 1.00 MB - 2.00 MB)");
}

TEST_F(PayloadTest, DataTransferredUsesTheSizeText) {
  EXPECT_EQ(attribute(job("u1"), {{"KB_TRANSFERRED", stat(1536, 0, 10.24)}}, 1, "anomalyDataTransferred"),
            "1.50 MB (Usual: 0.00 MB - 0.01 MB)");
}

TEST_F(PayloadTest, CountTextTruncatesTowardZero) {
  EXPECT_EQ(attribute(job("u1"), {{"NUM_FILES", stat(120.99, 99.9, 110.5)}}, 0, "anomalyBackupFilesCount"),
            "120 (Usual: 99 - 110)");
  EXPECT_EQ(attribute(job("u1"), {{"TOTAL_TIME", stat(-3.7, 0.5, 1.99)}}, 1, "anomalyTimeTaken"),
            "-3 (Usual: 0 - 1)");
}

TEST_F(PayloadTest, CountBeyondIntRangePrintsIntMinimum) {
  EXPECT_EQ(attribute(job("u1"), {{"NUM_FILES", stat(1e12, 4000, 4500)}}, 0, "anomalyBackupFilesCount"),
            "-2147483648 (Usual: 4000 - 4500)");
}

TEST_F(PayloadTest, RatioTextUsesSixSignificantDigits) {
  EXPECT_EQ(attribute(job("u1"), {{"DEDUP_RATE", stat(3.5, 10.25, 12.345678)}}, 1, "anomalyDeduplicationRatio"),
            "3.5 (Usual: 10.25 - 12.3457)");
  EXPECT_EQ(attribute(job("u1"), {{"DEDUP_RATE", stat(2, 1234567, 0.000012345)}}, 1, "anomalyDeduplicationRatio"),
            "2 (Usual: 1.23457e+06 - 1.2345e-05)");
}

TEST_F(PayloadTest, ScoreOfNoClusterDistancePrintsWithTwoDecimals) {
  EXPECT_EQ(attribute(job("u1"), {}, 0, "score", 2147483647.0), "2147483647.00");
}

TEST_F(PayloadTest, ScoreIsRoundedToTwoDecimals) {
  EXPECT_EQ(attribute(job("u1"), {}, 0, "score", 3.266), "3.27");
  EXPECT_EQ(attribute(job("u1"), {}, 0, "score", 3.264), "3.26");
  EXPECT_EQ(attribute(job("u1"), {}, 0, "score", 0.0), "0.00");
  EXPECT_EQ(attribute(job("u1"), {}, 0, "score", -1.0), "-1.00");
}

TEST_F(PayloadTest, JobIdIsTheIntegerOfTheJobIdTextWhileAnomalyIdIsTakenAsGiven) {
  const JsonPtr root = parse(payload(job("u1", "vm1", {{"JOB_ID", "00123"}}), {}, 0, "00123_1000000"));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  const json_t* jobid = json_object_get(attributes, "jobid");
  ASSERT_TRUE(json_is_integer(jobid));
  EXPECT_EQ(json_integer_value(jobid), 123);
  EXPECT_EQ(string_member(attributes, "anomalyId"), "00123_1000000");
}

TEST_F(PayloadTest, StorageNameIsTheDestinationStorageWhateverTheFeatureSet) {
  const Row record = job("u1", "vm1", {{"DESTINATION_STORAGE_NAME", "msdp-7"}});
  EXPECT_EQ(attribute(record, {}, 0, "storageName"), "msdp-7");
  EXPECT_EQ(attribute(record, {}, 1, "storageName"), "msdp-7");
}

TEST_F(PayloadTest, NamesComeFromTheirOwnColumns) {
  const Row record = job("u1", "vm1",
                         {{"CLIENT", "C"}, {"POLICY", "P"}, {"POLICY_TYPE", "T"}, {"SCHEDULE_NAME", "S"}});
  const JsonPtr root = parse(payload(record, {}, 0));
  const json_t* attributes = attributes_of(root);
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(string_member(attributes, "clientName"), "C");
  EXPECT_EQ(string_member(attributes, "policyName"), "P");
  EXPECT_EQ(string_member(attributes, "policyType"), "T");
  EXPECT_EQ(string_member(attributes, "scheduleName"), "S");
}

TEST_F(PayloadTest, DetectionTimeIsTheServiceClockInLocalTimeWithFixedFraction) {
  EXPECT_EQ(string_member(parse(payload(job("u1"), {}, 0)).get(), "DetectionTime"), "2023-11-14T22:13:20.66Z");

  service->set_clock([] { return static_cast<time_t>(0); });
  EXPECT_EQ(string_member(parse(payload(job("u1"), {}, 0)).get(), "DetectionTime"), "1970-01-01T00:00:00.66Z");
}

TEST_F(PayloadTest, DetectionTimeFollowsTheLocalTimeZone) {
  setenv("TZ", "EST5", 1);
  tzset();
  const std::string text = string_member(parse(payload(job("u1"), {}, 0)).get(), "DetectionTime");
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(text, "2023-11-14T17:13:20.66Z");
}

}  // namespace
