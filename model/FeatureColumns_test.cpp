#include "model/FeatureColumns.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "model/SquaredDistance.h"
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::make_obs;

std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x); }

Matrix random_rows(int n, int width, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> value(0.0, 3.0);
  Matrix rows(n, std::vector<double>(width));
  for (auto& row : rows)
    for (double& x : row) x = value(rng);
  return rows;
}

}  // namespace

TEST(FeatureColumns, HoldsTheCountedRowsPaddedToWholeBlocks) {
  Observations obs = make_obs({{1.0, 2.0}, {3.0, 4.0}, {5.0, 6.0}, {7.0, 8.0}, {9.0, 10.0}, {11.0, 12.0}});
  obs.num_observations = 5;
  const FeatureColumns columns(obs);
  EXPECT_EQ(columns.rows(), 5u);
  EXPECT_EQ(columns.features(), 2u);
  EXPECT_EQ(columns.padded_rows(), 8u);
  EXPECT_EQ(columns.value(4, 1), 10.0);
  EXPECT_FALSE(columns.uneven());
}

TEST(FeatureColumns, NoRowsMeansNoFeatures) {
  Observations obs = make_obs({{1.0, 2.0}});
  obs.num_observations = -3;
  const FeatureColumns columns(obs);
  EXPECT_EQ(columns.rows(), 0u);
  EXPECT_EQ(columns.features(), 0u);
  EXPECT_EQ(columns.padded_rows(), 0u);
}

TEST(FeatureColumns, DistancesHaveTheBitsOfSquaredEuclidean) {
  const Matrix rows = random_rows(11, 5, 7);
  const FeatureColumns columns(make_obs(rows));
  std::vector<double> out(columns.padded_rows(), -1.0);
  for (std::size_t r = 0; r < rows.size(); ++r) {
    columns.squared_distances_from(r, out.data());
    for (std::size_t j = 0; j < rows.size(); ++j) {
      const double expected = squared_euclidean(rows[r].data(), rows[j].data(), 5);
      ASSERT_EQ(bits(out[j]), bits(expected)) << r << "-" << j;
      ASSERT_EQ(bits(columns.squared_distance(r, j)), bits(expected)) << r << "-" << j;
    }
    EXPECT_EQ(out[r], 0.0);
  }
}

TEST(FeatureColumns, UnequalRowsAreNotedNotRefused) {
  const FeatureColumns columns(make_obs({{1.0, 2.0}, {3.0}, {5.0, 6.0}}));
  EXPECT_TRUE(columns.uneven());
  EXPECT_EQ(columns.features(), 2u);
}

TEST(FeatureColumns, RowsBeyondTheCountMayDifferInLength) {
  Observations obs = make_obs({{1.0, 2.0}, {3.0, 4.0}, {5.0}});
  obs.num_observations = 2;
  EXPECT_FALSE(FeatureColumns(obs).uneven());
}

TEST(FeatureColumns, FinitenessCoversEveryCountedValue) {
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  EXPECT_TRUE(FeatureColumns(make_obs({{1.0, 2.0}, {3.0, -4.0}})).all_finite());
  EXPECT_FALSE(FeatureColumns(make_obs({{1.0, 2.0}, {3.0, kNaN}})).all_finite());
  EXPECT_FALSE(FeatureColumns(make_obs({{-kInf, 2.0}, {3.0, 4.0}})).all_finite());
}

TEST(FeatureColumns, SameValuesMeansTheSameBits) {
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  const Matrix rows{{1.0, kNaN}, {3.0, 4.0}};
  const FeatureColumns columns(make_obs(rows));
  EXPECT_TRUE(columns.same_values(FeatureColumns(make_obs(rows))));
  EXPECT_FALSE(columns.same_values(FeatureColumns(make_obs({{1.0, kNaN}, {3.0, std::nextafter(4.0, 5.0)}}))));
  EXPECT_FALSE(columns.same_values(FeatureColumns(make_obs({{1.0}, {3.0}}))));
  EXPECT_TRUE(FeatureColumns().same_values(FeatureColumns()));
}

TEST(FeatureColumns, UnevenRowsAreNeverTheSame) {
  const Matrix uneven{{1.0, 2.0}, {3.0}};
  const FeatureColumns columns(make_obs(uneven));
  EXPECT_FALSE(columns.same_values(columns));
  EXPECT_FALSE(columns.same_values(FeatureColumns(make_obs(uneven))));
}
