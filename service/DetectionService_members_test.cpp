// The members of an anomalous job's nearest cluster and their per-feature
// range.
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

}  // namespace
