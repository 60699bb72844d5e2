// Cluster range analysis of an anomalous job (the members of its nearest
// cluster, their per-feature range, the features outside it) and the anomaly
// report built from it (the JSON payload and the ANOMALY_DATA row).
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

#include "service/ServiceTestFixture.h"
#include "storage/Exception.h"

namespace {

using FeatureValues = DetectionService::FeatureValues;
using AnomalyStats = DetectionService::AnomalyStats;

const std::string kInsertAnomalySql = "INSERT OR IGNORE INTO ANOMALY_DATA VALUES (?, ?, ?, ?, ?, ?)";

// One training record as the training query returns it: the five feature
// cells as text, plus the user-identified cluster.
DetectionService::Row member(const std::string& num_files, const std::string& image_size,
                             const std::string& kb_transferred = "0", const std::string& total_time = "0",
                             const std::string& dedup_rate = "0") {
  using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
  DetectionService::Row row;
  row["NUM_FILES"] = Value(num_files);
  row["IMAGE_SIZE"] = Value(image_size);
  row["KB_TRANSFERRED"] = Value(kb_transferred);
  row["TOTAL_TIME"] = Value(total_time);
  row["DEDUP_RATE"] = Value(dedup_rate);
  row["USER_IDENTIFIED_CLUSTER"] = Value(std::string("-1"));
  return row;
}

ClosestClusterInfo closest_to(int cluster_id, double distance = 1.5) {
  ClosestClusterInfo closest;
  closest.cluster_id = cluster_id;
  closest.distance = distance;
  return closest;
}

std::set<std::string> keys_of(const AnomalyStats& stats) {
  std::set<std::string> keys;
  for (const auto& entry : stats) keys.insert(entry.first);
  return keys;
}

struct JsonDeleter {
  void operator()(json_t* json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

JsonPtr parse(const std::string& text) {
  json_error_t error;
  JsonPtr root(json_loads(text.c_str(), 0, &error));
  EXPECT_NE(root, nullptr) << "not JSON: " << text << " (" << error.text << ")";
  return root;
}

// The string member of an object, or "<absent>" / "<not a string>".
std::string string_member(const json_t* object, const char* key) {
  const json_t* member = json_object_get(object, key);
  if (member == nullptr) return "<absent>";
  if (!json_is_string(member)) return "<not a string>";
  return json_string_value(member);
}

std::vector<std::string> member_names(const json_t* object) {
  std::vector<std::string> names;
  const char* key;
  json_t* value;
  json_object_foreach(const_cast<json_t*>(object), key, value) { names.push_back(key); }
  return names;
}

anomaly_stat stat(double current, double usual_min, double usual_max) {
  anomaly_stat s;
  s.current_value = current;
  s.usual_min = usual_min;
  s.usual_max = usual_max;
  return s;
}

// ---------------------------------------------------------------------------
// Members of the nearest cluster.

class ClusterMembersTest : public ServiceTestFixture {};

TEST_F(ClusterMembersTest, LabelKDesignatesTrainingRowKMinusOneWithRawValuesInAscendingOrder) {
  const Rows training = {member("10", "1000.5", "11", "100", "1.5"), member("20", "2000.25", "22", "200", "2.5"),
                         member("30", "3000.75", "33", "300", "3.5"), member("40", "4000", "44", "400", "4.5")};
  // Label 0 is the job; labels 1..4 belong to training rows 0..3.
  const std::vector<int> labels = {-1, 2, 1, 2, 1};
  FeatureValues values;
  service->get_observations_in_cluster(closest_to(2), training, labels, 1, values);

  EXPECT_EQ(values.size(), 5u);
  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{10, 30}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{1000.5, 3000.75}));
  EXPECT_EQ(values["KB_TRANSFERRED"], (std::vector<double>{11, 33}));
  EXPECT_EQ(values["TOTAL_TIME"], (std::vector<double>{100, 300}));
  EXPECT_EQ(values["DEDUP_RATE"], (std::vector<double>{1.5, 3.5}));

  service->get_observations_in_cluster(closest_to(1), training, labels, 1, values);
  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{20, 40}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{2000.25, 4000}));
}

TEST_F(ClusterMembersTest, FallbackFeatureSetCollectsOnlyNumFilesAndImageSize) {
  const Rows training = {member("10", "1000", "11", "100", "1.5"), member("20", "2000", "22", "200", "2.5")};
  FeatureValues values;
  service->get_observations_in_cluster(closest_to(0), training, {-1, 0, 0}, 0, values);

  EXPECT_EQ(values.size(), 2u);
  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{10, 20}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{1000, 2000}));
}

TEST_F(ClusterMembersTest, FallbackFeatureSetResetsNumFilesAndImageSizeAndLeavesOtherEntriesAlone) {
  const Rows training = {member("10", "1000", "11", "100", "1.5")};
  FeatureValues values = {{"NUM_FILES", {9, 9, 9}},   {"IMAGE_SIZE", {8}},  {"KB_TRANSFERRED", {7, 7}},
                          {"TOTAL_TIME", {6}},          {"DEDUP_RATE", {5}},  {"SOMETHING_ELSE", {4}}};
  service->get_observations_in_cluster(closest_to(0), training, {-1, 0}, 0, values);

  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{10}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{1000}));
  EXPECT_EQ(values["KB_TRANSFERRED"], (std::vector<double>{7, 7}));
  EXPECT_EQ(values["TOTAL_TIME"], (std::vector<double>{6}));
  EXPECT_EQ(values["DEDUP_RATE"], (std::vector<double>{5}));
  EXPECT_EQ(values["SOMETHING_ELSE"], (std::vector<double>{4}));
}

TEST_F(ClusterMembersTest, FullFeatureSetResetsAllFiveEntriesAndLeavesOtherEntriesAlone) {
  const Rows training = {member("10", "1000", "11", "100", "1.5")};
  FeatureValues values = {{"NUM_FILES", {9, 9, 9}},   {"IMAGE_SIZE", {8}},  {"KB_TRANSFERRED", {7, 7}},
                          {"TOTAL_TIME", {6}},          {"DEDUP_RATE", {5}},  {"SOMETHING_ELSE", {4}}};
  service->get_observations_in_cluster(closest_to(0), training, {-1, 0}, 1, values);

  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{10}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{1000}));
  EXPECT_EQ(values["KB_TRANSFERRED"], (std::vector<double>{11}));
  EXPECT_EQ(values["TOTAL_TIME"], (std::vector<double>{100}));
  EXPECT_EQ(values["DEDUP_RATE"], (std::vector<double>{1.5}));
  EXPECT_EQ(values["SOMETHING_ELSE"], (std::vector<double>{4}));
}

TEST_F(ClusterMembersTest, NoMatchingLabelLeavesEmptyVectorsAndDiscardsEarlierContents) {
  const Rows training = {member("10", "1000"), member("20", "2000")};
  FeatureValues values = {{"NUM_FILES", {1}}, {"IMAGE_SIZE", {2}}, {"DEDUP_RATE", {3}}};
  service->get_observations_in_cluster(closest_to(7), training, {-1, 0, 1}, 1, values);

  EXPECT_EQ(values.size(), 5u);
  for (const char* feature : {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}) {
    ASSERT_EQ(values.count(feature), 1u) << feature;
    EXPECT_TRUE(values[feature].empty()) << feature;
  }
}

TEST_F(ClusterMembersTest, NoClusterAtAllSkipsTheJobLabelAndTakesNoiseRowsAsMembers) {
  const Rows training = {member("10", "1000"), member("20", "2000"), member("30", "3000")};
  // Every label is noise except training row 1; the job's own label 0 is
  // noise too but has no training row.
  const std::vector<int> labels = {-1, -1, 0, -1};
  FeatureValues values;
  service->get_observations_in_cluster(closest_to(-1, 2147483647.0), training, labels, 0, values);

  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{10, 30}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{1000, 3000}));
}

TEST_F(ClusterMembersTest, JobLabelMatchingTheClusterAddsNoMember) {
  const Rows training = {member("10", "1000"), member("20", "2000")};
  // The job itself sits in cluster 3 together with training row 1 only.
  FeatureValues values;
  service->get_observations_in_cluster(closest_to(3, 0.0), training, {3, 0, 3}, 0, values);

  EXPECT_EQ(values["NUM_FILES"], (std::vector<double>{20}));
  EXPECT_EQ(values["IMAGE_SIZE"], (std::vector<double>{2000}));
}

// ---------------------------------------------------------------------------
// Range of one feature.

class ClusterRangeTest : public ServiceTestFixture {};

TEST_F(ClusterRangeTest, RangeIsSmallestAndLargestMemberValue) {
  const FeatureValues values = {{"NUM_FILES", {5.0, -2.5, 9.0, 3.0}}, {"IMAGE_SIZE", {1.0}}};
  EXPECT_EQ(service->get_min_max_per_feature_statistics(values, "NUM_FILES"), std::make_pair(-2.5, 9.0));
}

TEST_F(ClusterRangeTest, SingleMemberGivesMinimumEqualToMaximum) {
  const FeatureValues values = {{"IMAGE_SIZE", {4096.5}}};
  EXPECT_EQ(service->get_min_max_per_feature_statistics(values, "IMAGE_SIZE"), std::make_pair(4096.5, 4096.5));
}

TEST_F(ClusterRangeTest, FeatureWithoutEntryGivesMinusOneRange) {
  const FeatureValues values = {{"NUM_FILES", {5.0, 6.0}}};
  EXPECT_EQ(service->get_min_max_per_feature_statistics(values, "TOTAL_TIME"), std::make_pair(-1.0, -1.0));
  EXPECT_EQ(service->get_min_max_per_feature_statistics(FeatureValues{}, "NUM_FILES"), std::make_pair(-1.0, -1.0));
}

TEST_F(ClusterRangeTest, EmptyMemberListGivesMinusOneRange) {
  const FeatureValues values = {{"NUM_FILES", {}}};
  EXPECT_EQ(service->get_min_max_per_feature_statistics(values, "NUM_FILES"), std::make_pair(-1.0, -1.0));
}

// ---------------------------------------------------------------------------
// Anomaly statistics.

class AnomalyStatTest : public ServiceTestFixture {
 protected:
  // Training rows 0 and 1 form cluster 0; row 2 is in cluster 1 with values
  // far away, so it widens the range if wrongly taken as a member.
  const Rows training = {member("100", "1000", "500", "60", "2.0"), member("200", "3000", "900", "120", "4.0"),
                         member("900000", "900000", "900000", "900000", "900")};
  const std::vector<int> labels = {-1, 0, 0, 1};

  AnomalyStats stats_for(const Row& record, int full_feature_set, const ClosestClusterInfo& closest = closest_to(0)) {
    AnomalyStats stats;
    service->get_anomaly_stat(record, closest, training, labels, full_feature_set, stats);
    return stats;
  }

  static Row record(const std::string& num_files, const std::string& image_size, const std::string& kb,
                    const std::string& total_time, const std::string& dedup) {
    return job("u1", "vm1",
               {{"NUM_FILES", num_files},
                {"IMAGE_SIZE", image_size},
                {"KB_TRANSFERRED", kb},
                {"TOTAL_TIME", total_time},
                {"DEDUP_RATE", dedup}});
  }
};

TEST_F(AnomalyStatTest, FeatureListHoldsTheFiveFeaturesInDesignOrder) {
  EXPECT_EQ(service->get_feature_list(),
            (std::vector<std::string>{"IMAGE_SIZE", "NUM_FILES", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}));
}

TEST_F(AnomalyStatTest, EveryFeatureWithinClusterRangeEndsIncludedGivesEmptyStatistics) {
  // Minimum, maximum and inside values mixed over the five features.
  EXPECT_TRUE(stats_for(record("100", "3000", "700", "60", "4.0"), 1).empty());
  EXPECT_TRUE(stats_for(record("200", "1000", "500", "120", "3"), 1).empty());
}

TEST_F(AnomalyStatTest, ValueEqualToMinimumIsInRangeAndSlightlySmallerIsOut) {
  EXPECT_TRUE(stats_for(record("150", "1000", "500", "60", "2.0"), 1).empty());

  const AnomalyStats stats = stats_for(record("150", "999.9999999", "500", "60", "2.0"), 1);
  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"IMAGE_SIZE"}));
  EXPECT_EQ(stats.at("IMAGE_SIZE").current_value, 999.9999999);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_min, 1000.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_max, 3000.0);
}

TEST_F(AnomalyStatTest, ValueEqualToMaximumIsInRangeAndSlightlyLargerIsOut) {
  EXPECT_TRUE(stats_for(record("150", "2000", "900", "120", "4.0"), 1).empty());

  const AnomalyStats stats = stats_for(record("150", "2000", "900", "120", "4.0000001"), 1);
  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"DEDUP_RATE"}));
  EXPECT_EQ(stats.at("DEDUP_RATE").current_value, 4.0000001);
  EXPECT_EQ(stats.at("DEDUP_RATE").usual_min, 2.0);
  EXPECT_EQ(stats.at("DEDUP_RATE").usual_max, 4.0);
}

TEST_F(AnomalyStatTest, NaNValueCountsAsInRange) {
  EXPECT_TRUE(stats_for(record("nan", "nan", "nan", "nan", "nan"), 1).empty());

  const AnomalyStats stats = stats_for(record("nan", "5", "nan", "nan", "nan"), 1);
  EXPECT_EQ(keys_of(stats), (std::set<std::string>{"IMAGE_SIZE"}));
}

TEST_F(AnomalyStatTest, FallbackFeatureSetReportsOnlyNumFilesAndImageSize) {
  // Every feature far outside, TOTAL_TIME by a huge amount.
  const Row far = record("5", "5", "5", "99999999", "99");
  for (int full_feature_set : {0, 2, -1}) {
    const AnomalyStats stats = stats_for(far, full_feature_set);
    ASSERT_EQ(keys_of(stats), (std::set<std::string>{"IMAGE_SIZE", "NUM_FILES"})) << full_feature_set;
    EXPECT_EQ(stats.at("NUM_FILES").current_value, 5.0);
    EXPECT_EQ(stats.at("NUM_FILES").usual_min, 100.0);
    EXPECT_EQ(stats.at("NUM_FILES").usual_max, 200.0);
    EXPECT_EQ(stats.at("IMAGE_SIZE").current_value, 5.0);
    EXPECT_EQ(stats.at("IMAGE_SIZE").usual_min, 1000.0);
    EXPECT_EQ(stats.at("IMAGE_SIZE").usual_max, 3000.0);
  }
}

TEST_F(AnomalyStatTest, FallbackFeatureSetIgnoresFarOffTotalTimeAlone) {
  EXPECT_TRUE(stats_for(record("150", "2000", "1", "99999999", "99"), 0).empty());
}

TEST_F(AnomalyStatTest, FullFeatureSetReportsAllFiveWithTheirClusterRanges) {
  const AnomalyStats stats = stats_for(record("250", "500", "1000", "30", "1.25"), 1);
  ASSERT_EQ(keys_of(stats),
            (std::set<std::string>{"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}));
  const std::map<std::string, std::vector<double>> expected = {{"NUM_FILES", {250, 100, 200}},
                                                               {"IMAGE_SIZE", {500, 1000, 3000}},
                                                               {"KB_TRANSFERRED", {1000, 500, 900}},
                                                               {"TOTAL_TIME", {30, 60, 120}},
                                                               {"DEDUP_RATE", {1.25, 2.0, 4.0}}};
  for (const auto& [feature, triple] : expected) {
    EXPECT_EQ(stats.at(feature).current_value, triple[0]) << feature;
    EXPECT_EQ(stats.at(feature).usual_min, triple[1]) << feature;
    EXPECT_EQ(stats.at(feature).usual_max, triple[2]) << feature;
  }
}

TEST_F(AnomalyStatTest, SingleMemberClusterMakesEveryOtherValueOutOfRange) {
  // Cluster 1 has the single member training row 2.
  EXPECT_TRUE(stats_for(record("900000", "900000", "900000", "900000", "900"), 1, closest_to(1)).empty());

  const AnomalyStats stats = stats_for(record("900001", "900000", "900000", "900000", "900"), 1, closest_to(1));
  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"NUM_FILES"}));
  EXPECT_EQ(stats.at("NUM_FILES").current_value, 900001.0);
  EXPECT_EQ(stats.at("NUM_FILES").usual_min, 900000.0);
  EXPECT_EQ(stats.at("NUM_FILES").usual_max, 900000.0);
}

TEST_F(AnomalyStatTest, ClusterWithoutMembersGivesMinusOneRangeSoOnlyMinusOneIsInRange) {
  // No label equals 5: every feature has an empty member list.
  const AnomalyStats stats = stats_for(record("-1", "0", "-1.5", "1", "2"), 1, closest_to(5));
  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}));
  for (const auto& [feature, s] : stats) {
    EXPECT_EQ(s.usual_min, -1.0) << feature;
    EXPECT_EQ(s.usual_max, -1.0) << feature;
  }
  EXPECT_EQ(stats.at("IMAGE_SIZE").current_value, 0.0);
  EXPECT_EQ(stats.at("KB_TRANSFERRED").current_value, -1.5);
}

TEST_F(AnomalyStatTest, NoClusterAtAllTakesNoiseRowsAsMembersWithoutTheJob) {
  const Rows noise_training = {member("10", "100"), member("5000", "5000"), member("20", "200")};
  const std::vector<int> noise_labels = {-1, -1, 0, -1};
  AnomalyStats stats;
  // The job's IMAGE_SIZE lies outside the noise rows 0 and 2 only.
  service->get_anomaly_stat(job("u1", "vm1", {{"NUM_FILES", "15"}, {"IMAGE_SIZE", "5000"}}),
                            closest_to(-1, 2147483647.0), noise_training, noise_labels, 0, stats);

  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"IMAGE_SIZE"}));
  EXPECT_EQ(stats.at("IMAGE_SIZE").current_value, 5000.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_min, 100.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_max, 200.0);
}

TEST_F(AnomalyStatTest, OnlyFeaturesOfTheFeatureListAreExamined) {
  // Columns outside the feature list are never reported, however odd.
  Row odd = record("150", "2000", "700", "90", "3");
  odd["STREAM_NUMBER"] = Value(std::string("99999"));
  odd["PARENT_JOB_ID"] = Value(std::string("-99999"));
  EXPECT_TRUE(stats_for(odd, 1).empty());
}

TEST_F(AnomalyStatTest, ExistingEntriesAreKeptAndOverwrittenOnlyForOutOfRangeFeatures) {
  AnomalyStats stats = {{"TOTAL_TIME", stat(1, 2, 3)}, {"NUM_FILES", stat(4, 5, 6)}, {"IMAGE_SIZE", stat(7, 8, 9)}};
  // NUM_FILES in range, IMAGE_SIZE out of range, TOTAL_TIME not examined.
  service->get_anomaly_stat(record("150", "4000", "1", "1", "1"), closest_to(0), training, labels, 0, stats);

  ASSERT_EQ(keys_of(stats), (std::set<std::string>{"TOTAL_TIME", "NUM_FILES", "IMAGE_SIZE"}));
  EXPECT_EQ(stats.at("TOTAL_TIME").current_value, 1.0);
  EXPECT_EQ(stats.at("TOTAL_TIME").usual_min, 2.0);
  EXPECT_EQ(stats.at("TOTAL_TIME").usual_max, 3.0);
  EXPECT_EQ(stats.at("NUM_FILES").current_value, 4.0);
  EXPECT_EQ(stats.at("NUM_FILES").usual_min, 5.0);
  EXPECT_EQ(stats.at("NUM_FILES").usual_max, 6.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").current_value, 4000.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_min, 1000.0);
  EXPECT_EQ(stats.at("IMAGE_SIZE").usual_max, 3000.0);
}

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
