#include "model/LazyDistanceMatrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::make_obs;

std::vector<double> row_of(LazyDistanceMatrix& matrix, int r) {
  const double* squares = matrix.row(r);
  return std::vector<double>(squares, squares + matrix.size());
}

const Matrix kRows{{0.0, 0.0}, {3.0, 4.0}, {6.0, 8.0}, {0.0, 1.0}, {1.0, 0.0}};

}  // namespace

TEST(LazyDistanceMatrix, NothingIsComputedBeforeARowIsAskedFor) {
  LazyDistanceMatrix matrix(5);
  matrix.load_rows(make_obs(kRows));
  EXPECT_EQ(matrix.size(), 5);
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 5; ++j) EXPECT_EQ(matrix.cached(i, j), -1.0) << i << "-" << j;
}

TEST(LazyDistanceMatrix, ARowGivesSquaresWithTheDiagonalMarked) {
  LazyDistanceMatrix matrix(5);
  matrix.load_rows(make_obs(kRows));
  EXPECT_EQ(row_of(matrix, 1), (std::vector<double>{25.0, -1.0, 25.0, 18.0, 20.0}));
}

TEST(LazyDistanceMatrix, AComputedRowAnswersForItsPairsFromEitherSide) {
  LazyDistanceMatrix matrix(5);
  matrix.load_rows(make_obs(kRows));
  matrix.row(1);
  EXPECT_EQ(matrix.cached(1, 0), 5.0);
  EXPECT_EQ(matrix.cached(0, 1), 5.0);
  EXPECT_EQ(matrix.cached(2, 1), 5.0);
  EXPECT_EQ(matrix.cached(3, 1), std::sqrt(18.0));
  EXPECT_EQ(matrix.cached(1, 1), -1.0);
  EXPECT_EQ(matrix.cached(0, 2), -1.0);  // neither row computed
  EXPECT_EQ(matrix.cached(1, 5), -1.0);
  EXPECT_EQ(matrix.cached(-1, 1), -1.0);
}

TEST(LazyDistanceMatrix, NegativeCountHoldsNoRows) {
  LazyDistanceMatrix matrix(-4);
  EXPECT_EQ(matrix.size(), 0);
  EXPECT_EQ(matrix.cached(0, 0), -1.0);
}

TEST(LazyDistanceMatrix, PairsComputedFromEarlierRowsKeepTheirDistances) {
  LazyDistanceMatrix matrix(5);
  matrix.load_rows(make_obs(kRows));
  matrix.row(0);
  Matrix moved = kRows;
  for (auto& row : moved) row[0] += 100.0;
  moved[0] = {50.0, 50.0};
  matrix.load_rows(make_obs(moved));
  EXPECT_EQ(matrix.cached(2, 0), 10.0);  // from the rows loaded first
  // Row 2 takes its pair with row 0 from before and the rest from now.
  EXPECT_EQ(row_of(matrix, 2), (std::vector<double>{100.0, 25.0, -1.0, 85.0, 89.0}));
  EXPECT_EQ(row_of(matrix, 0), (std::vector<double>{-1.0, 25.0, 100.0, 1.0, 1.0}));
}

TEST(LazyDistanceMatrix, ReloadingTheSameRowsChangesNothing) {
  LazyDistanceMatrix matrix(5);
  matrix.load_rows(make_obs(kRows));
  const std::vector<double> first = row_of(matrix, 3);
  matrix.load_rows(make_obs(kRows));
  EXPECT_EQ(row_of(matrix, 3), first);
  EXPECT_EQ(row_of(matrix, 4), (std::vector<double>{1.0, 20.0, 89.0, 2.0, -1.0}));
}

TEST(LazyDistanceMatrix, RowsOfUnequalLengthFailAtTheFirstRowComputed) {
  LazyDistanceMatrix matrix(3);
  matrix.load_rows(make_obs({{0.0, 0.0}, {1.0}, {2.0, 2.0}}));
  try {
    matrix.row(2);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), DBScan::kUnequalRowsMessage);
  }
}
