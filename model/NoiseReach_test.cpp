#include "model/NoiseReach.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::any_noise;
using tsanomaly_test::make_obs;
using tsanomaly_test::on_a_line;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

double largest_reach(const Matrix& rows, std::size_t others_needed) {
  const FeatureColumns columns(make_obs(rows));
  return std::sqrt(noise_reach::largest_squared_reach(columns, noise_reach::squared_core_radii(columns, others_needed)));
}

}  // namespace

TEST(NoiseReach, DistancesAreComparableAndSkipTheRowItself) {
  const FeatureColumns columns(make_obs({{0.0, 0.0}, {3.0, 4.0}, {kNaN, 1.0}, {0.0, 2.0}, {1.0, 1.0}}));
  std::vector<double> out;
  noise_reach::squared_distances_from(columns, 1, out);
  EXPECT_EQ(out, (std::vector<double>{25.0, kInf, kInf, 13.0, 13.0}));
}

TEST(NoiseReach, CoreRadiusIsTheDistanceToTheLastOtherRowNeeded) {
  const FeatureColumns columns(make_obs(on_a_line({0.0, 1.0, 3.0, 7.0})));
  std::vector<double> distances;
  std::vector<double> heap;
  EXPECT_EQ(noise_reach::squared_core_radius(columns, 0, 1, distances, heap), 1.0);
  EXPECT_EQ(noise_reach::squared_core_radius(columns, 0, 2, distances, heap), 9.0);
  EXPECT_EQ(noise_reach::squared_core_radius(columns, 0, 3, distances, heap), 49.0);
  EXPECT_EQ(noise_reach::squared_core_radii(columns, 2), (std::vector<double>{9.0, 4.0, 9.0, 36.0}));
}

TEST(NoiseReach, TooFewOtherRowsLeaveNoRowCore) {
  const FeatureColumns columns(make_obs(on_a_line({0.0, 1.0, 3.0})));
  EXPECT_EQ(noise_reach::squared_core_radii(columns, 3), (std::vector<double>(3, kInf)));
  EXPECT_EQ(noise_reach::largest_squared_reach(columns, noise_reach::squared_core_radii(columns, 3)), kInf);
}

TEST(NoiseReach, ABorderRowIsReachedThroughItsNearestCoreRow) {
  // Row 3.5 is core only from 2.5 on, but row 2 (core from 1.5) is 1.5 away.
  EXPECT_EQ(largest_reach(on_a_line({0.0, 1.0, 2.0, 3.5}), 2), 1.5);
  // Alone at the end, a row is reached only through its own core radius.
  EXPECT_EQ(largest_reach(on_a_line({0.0, 1.0, 2.0, 10.0}), 1), 8.0);
}

// The reach decides noise for every eps: a run at the largest reach leaves
// noise, a run just above it none.
TEST(NoiseReach, LargestReachIsWhereTheClustererStopsLeavingNoise) {
  std::mt19937 rng(2024);
  std::normal_distribution<double> value(0.0, 2.0);
  for (int c = 0; c < 60; ++c) {
    const int n = 3 + c % 25;
    Matrix rows(n, std::vector<double>(1 + c % 4));
    for (auto& row : rows)
      for (double& x : row) x = std::round(value(rng) * 4.0) / 4.0;
    const int min_samples = 2 + c % 4;
    const double reach = largest_reach(rows, static_cast<std::size_t>(min_samples - 1));
    SCOPED_TRACE("case " + std::to_string(c) + ", reach " + std::to_string(reach));
    if (reach == kInf) continue;
    EXPECT_TRUE(any_noise(rows, reach, min_samples));
    EXPECT_FALSE(any_noise(rows, std::nextafter(reach, kInf), min_samples));
  }
}
