// Cluster range analysis of an anomalous job: the features that lie outside
// their nearest cluster's range.
#include <gtest/gtest.h>

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

#include "tests/support/ServiceTestFixture.h"

namespace {

using FeatureValues = DetectionService::FeatureValues;
using AnomalyStats = DetectionService::AnomalyStats;


std::set<std::string> keys_of(const AnomalyStats& stats) {
  std::set<std::string> keys;
  for (const auto& entry : stats) keys.insert(entry.first);
  return keys;
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

}  // namespace
