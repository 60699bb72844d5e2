#include "model/ZOrderedRows.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::make_obs;

std::vector<std::size_t> order_of(const Matrix& rows) {
  const ZOrderedRows along{FeatureColumns(make_obs(rows))};
  std::vector<std::size_t> order;
  for (std::size_t p = 0; p < along.size(); ++p) order.push_back(along.row_at(p));
  return order;
}

}  // namespace

TEST(ZOrderedRows, OneFeatureIsSortedByValueKeepingTiesInOrder) {
  EXPECT_EQ(order_of({{3.0}, {-1.0}, {2.0}, {-1.0}, {10.0}}), (std::vector<std::size_t>{1, 3, 2, 0, 4}));
}

TEST(ZOrderedRows, TwoFeaturesInterleaveTheirBits) {
  // The corners of a square: the first feature's bit comes first.
  EXPECT_EQ(order_of({{1.0, 1.0}, {0.0, 1.0}, {1.0, 0.0}, {0.0, 0.0}}), (std::vector<std::size_t>{3, 1, 2, 0}));
}

TEST(ZOrderedRows, FeaturesAreCopiedRowByRowInCurveOrder) {
  const Matrix rows{{5.0, 1.0, 2.0}, {0.0, 7.0, 9.0}, {2.0, 4.0, 6.0}};
  const ZOrderedRows along{FeatureColumns(make_obs(rows))};
  ASSERT_EQ(along.size(), 3u);
  EXPECT_EQ(along.features(), 3u);
  for (std::size_t p = 0; p < along.size(); ++p) {
    const std::vector<double> copied(along.features_at(p), along.features_at(p) + 3);
    EXPECT_EQ(copied, rows[along.row_at(p)]);
  }
}

TEST(ZOrderedRows, FeaturesWithoutAFiniteRangeDoNotOrderTheRows) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(order_of({{kInf, 4.0}, {0.0, 4.0}, {-kInf, 4.0}}), (std::vector<std::size_t>{0, 1, 2}));
  EXPECT_EQ(order_of({{}, {}, {}}), (std::vector<std::size_t>{0, 1, 2}));
}
