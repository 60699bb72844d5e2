#include "model/NoiseFreeProof.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "model/SquaredDistance.h"
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::any_noise;
using tsanomaly_test::make_obs;
using tsanomaly_test::on_a_line;

// Proves at an eps given as a distance, the way calibration asks.
bool proven_at(const Matrix& rows, double eps, int min_samples) {
  const double largest_within = std::nextafter(least_square_reaching(eps), 0.0);
  return noise_free_proof::found(FeatureColumns(make_obs(rows)), static_cast<std::size_t>(min_samples - 1),
                                 largest_within);
}

}  // namespace

TEST(NoiseFreeProof, RowsCloseTogetherAreProven) {
  EXPECT_TRUE(proven_at({{0.0, 0.0}, {0.5, 0.0}, {0.0, 0.5}, {0.5, 0.5}, {0.2, 0.3}}, 1.0, 4));
}

TEST(NoiseFreeProof, BorderRowsAtTheEndsAreProvenThroughTheirCoreNeighbours) {
  // Rows 0 and 3 have a single other row within eps, rows 1 and 2 two.
  EXPECT_TRUE(proven_at(on_a_line({0.0, 1.0, 2.0, 3.0}), std::nextafter(1.0, 2.0), 3));
}

TEST(NoiseFreeProof, ARowWithNoCoreRowWithinEpsIsNeverProven) {
  EXPECT_FALSE(proven_at(on_a_line({0.0, 1.0, 2.0, 3.0, 5.0}), std::nextafter(1.0, 2.0), 3));
  EXPECT_FALSE(proven_at(on_a_line({0.0, 1.0, 2.0, 3.0}), 1.0, 3));  // a pair exactly eps apart is not within it
}

TEST(NoiseFreeProof, TooFewRowsForACoreRowAreNeverProven) {
  EXPECT_FALSE(proven_at(on_a_line({0.0, 0.0, 0.0}), 1.0, 4));
}

TEST(NoiseFreeProof, RowsWithANonFiniteFeatureAreLeftToTheExactSearch) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(proven_at({{0.0, 0.0}, {0.0, 0.1}, {0.1, 0.0}, {0.1, nan}}, 2.5, 2));
}

// Whatever the proof claims holds: a run at that eps leaves no noise.
TEST(NoiseFreeProof, WhatIsProvenTheClustererConfirms) {
  std::mt19937 rng(99);
  std::normal_distribution<double> value(0.0, 1.0);
  int proven = 0;
  for (int c = 0; c < 80; ++c) {
    Matrix rows(20 + c * 3, std::vector<double>(1 + c % 5));
    for (auto& row : rows)
      for (double& x : row) x = value(rng) * (0.4 + 0.02 * c);
    const int min_samples = 2 + c % 6;
    SCOPED_TRACE("case " + std::to_string(c));
    if (!proven_at(rows, 2.5, min_samples)) continue;
    ++proven;
    EXPECT_FALSE(any_noise(rows, 2.5, min_samples));
  }
  EXPECT_GT(proven, 20);  // the check above must have had something to check
}
