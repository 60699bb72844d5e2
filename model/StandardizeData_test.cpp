#include "model/StandardizeData.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using Matrix = std::vector<std::vector<double>>;

TEST(StandardizeData, ConstantColumnBecomesZeroNotNan) {
  Matrix m{{4.0, 1.0}, {4.0, 2.0}, {4.0, 3.0}};
  StandardizeData().standardize(m);
  for (const std::vector<double>& row : m) EXPECT_EQ(row[0], 0.0);
  EXPECT_NE(m[0][1], 0.0);
}

TEST(StandardizeData, SingleRowBecomesAllZero) {
  Matrix m{{12.5, -3.0, 1e9}};
  StandardizeData().standardize(m);
  EXPECT_EQ(m, (Matrix{{0.0, 0.0, 0.0}}));
}

TEST(StandardizeData, ColumnOneTwoThreeGivesPopulationZScores) {
  const StandardizeData s;
  EXPECT_EQ(s.mean({1.0, 2.0, 3.0}), 2.0);
  EXPECT_DOUBLE_EQ(s.std_dev({1.0, 2.0, 3.0}, 2.0), 0.816496580927726);

  Matrix m{{1.0}, {2.0}, {3.0}};
  s.standardize(m);
  EXPECT_DOUBLE_EQ(m[0][0], -1.224744871391589);
  EXPECT_EQ(m[1][0], 0.0);
  EXPECT_DOUBLE_EQ(m[2][0], 1.224744871391589);
}

TEST(StandardizeData, EmptyMatrixIsLeftAsItIs) {
  Matrix m;
  StandardizeData().standardize(m);
  EXPECT_TRUE(m.empty());
}

TEST(StandardizeData, MatrixWithEmptyFirstRowIsLeftAsItIs) {
  Matrix m{{}, {}};
  StandardizeData().standardize(m);
  EXPECT_EQ(m, (Matrix{{}, {}}));

  // The first row sets the column count; with none there is nothing to do.
  Matrix wider_later{{}, {1.0, 2.0}};
  StandardizeData().standardize(wider_later);
  EXPECT_EQ(wider_later, (Matrix{{}, {1.0, 2.0}}));
}

TEST(StandardizeData, MeanAndStdDevOfNoValuesAreZero) {
  const StandardizeData s;
  EXPECT_EQ(s.mean({}), 0.0);
  EXPECT_EQ(s.std_dev({}, 5.0), 0.0);
}

TEST(StandardizeData, MeanSumsFromFirstToLast) {
  // 1 + 1e16 rounds back to 1e16, so in this order the sum is exactly 0.
  EXPECT_EQ(StandardizeData().mean({1.0, 1e16, -1e16}), 0.0);
}

TEST(StandardizeData, StdDevIsAboutTheGivenMean) {
  // About 0 rather than the true mean 3: sqrt((4 + 16) / 2).
  EXPECT_DOUBLE_EQ(StandardizeData().std_dev({2.0, 4.0}, 0.0), std::sqrt(10.0));
}

TEST(StandardizeData, NanDeviationDividesAndSpreadsNan) {
  Matrix m{{1.0}, {std::numeric_limits<double>::quiet_NaN()}};
  StandardizeData().standardize(m);
  EXPECT_TRUE(std::isnan(m[0][0]));
  EXPECT_TRUE(std::isnan(m[1][0]));
}

TEST(StandardizeData, ShorterRowIsRejectedBeforeAnyChange) {
  Matrix m{{1.0, 2.0}, {3.0, 4.0}, {5.0}};
  const Matrix before = m;
  EXPECT_THROW(StandardizeData().standardize(m), std::invalid_argument);
  EXPECT_EQ(m, before);
}

TEST(StandardizeData, LongerRowIsRejectedBeforeAnyChange) {
  Matrix m{{1.0, 2.0}, {3.0, 4.0, 9.0}, {5.0, 6.0}};
  const Matrix before = m;
  EXPECT_THROW(StandardizeData().standardize(m), std::invalid_argument);
  EXPECT_EQ(m, before);
}

TEST(StandardizeData, RandomColumnsMatchTheirOwnZScores) {
  std::mt19937 rng(4242u);
  std::uniform_int_distribution<int> rows_of(1, 40);
  std::uniform_int_distribution<int> cols_of(1, 5);
  std::lognormal_distribution<double> raw(5.0, 2.0);
  const StandardizeData s;
  for (int trial = 0; trial < 200; ++trial) {
    Matrix m(rows_of(rng), std::vector<double>(cols_of(rng)));
    for (std::vector<double>& row : m)
      for (double& x : row) x = std::floor(raw(rng));
    const Matrix before = m;
    s.standardize(m);

    ASSERT_EQ(m.size(), before.size());
    for (std::size_t j = 0; j < before[0].size(); ++j) {
      std::vector<double> column;
      for (const std::vector<double>& row : before) column.push_back(row[j]);
      double sum = 0.0;
      for (const double x : column) sum += x;
      const double mean = sum / column.size();
      double squares = 0.0;
      for (const double x : column) squares += (x - mean) * (x - mean);
      const double sd = std::sqrt(squares / column.size());

      double z_sum = 0.0;
      double z_squares = 0.0;
      for (std::size_t i = 0; i < m.size(); ++i) {
        ASSERT_EQ(m[i].size(), before[i].size());
        ASSERT_EQ(m[i][j], sd != 0.0 ? (before[i][j] - mean) / sd : 0.0) << "trial " << trial;
        z_sum += m[i][j];
        z_squares += m[i][j] * m[i][j];
      }
      if (sd != 0.0) {
        EXPECT_NEAR(z_sum / m.size(), 0.0, 1e-9) << "trial " << trial;
        EXPECT_NEAR(z_squares / m.size(), 1.0, 1e-9) << "trial " << trial;
      }
    }
  }
}

}  // namespace
