#include "model/EpsCalibrator.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "model/StandardizeData.h"
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::make_obs;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int kGridSize = 16;  // the 15 values tried and the one stored when all leave noise

// The grid written out the way calibration walks it, independently of the
// calibrator's own constants: 2.5, then repeated additions of 0.1.
std::array<double, kGridSize> walked_grid() {
  std::array<double, kGridSize> grid{};
  grid[0] = 2.5;
  for (int t = 1; t < kGridSize; ++t) grid[t] = grid[t - 1] + 0.1;
  return grid;
}

const std::array<double, kGridSize> kGrid = walked_grid();

std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x); }

// Calibrates both ways, requires the two answers to agree bit for bit and
// returns the answer.
double calibrate_both_ways(const Observations& obs, int min_samples) {
  const double fast = EpsCalibrator::find_noise_free_eps(obs, min_samples);
  const double literal = EpsCalibrator::find_noise_free_eps_by_repeated_runs(obs, min_samples);
  EXPECT_EQ(bits(fast), bits(literal)) << "fast " << fast << " literal " << literal;
  return fast;
}

// Index of eps in the grid; kGridSize when it is not a grid value at all.
int grid_index(double eps) {
  for (int t = 0; t < kGridSize; ++t)
    if (bits(kGrid[t]) == bits(eps)) return t;
  return kGridSize;
}

// The row with value at feature `axis` and 0.0 elsewhere.
std::vector<double> on_axis(int width, int axis, double value) {
  std::vector<double> row(width, 0.0);
  row[axis] = value;
  return row;
}

std::string error_of(const Observations& obs, double (*calibrate)(const Observations&, int)) {
  try {
    calibrate(obs, 3);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

// ---------------------------------------------------------------------------
// Random training sets: gaussian blobs, half-integer lattices (3-4-5 triangles
// put pairs exactly 2.5, 3.0, 3.5 apart) and stars of rows exactly one grid
// value away from the origin, optionally standardised, with duplicated rows,
// NaN and infinite features, or a far outlier.

int uniform_int(std::mt19937& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
double uniform_real(std::mt19937& rng, double lo, double hi) {
  return std::uniform_real_distribution<double>(lo, hi)(rng);
}
bool coin(std::mt19937& rng, double p) { return std::bernoulli_distribution(p)(rng); }

Matrix blobs(std::mt19937& rng, int n, int width) {
  Matrix centres(uniform_int(rng, 1, 4), std::vector<double>(width));
  for (auto& centre : centres)
    for (double& x : centre) x = uniform_real(rng, -6.0, 6.0);
  std::normal_distribution<double> spread(0.0, uniform_real(rng, 0.3, 2.5));
  Matrix rows;
  for (int i = 0; i < n; ++i) {
    std::vector<double> row = centres[uniform_int(rng, 0, static_cast<int>(centres.size()) - 1)];
    for (double& x : row) x += spread(rng);
    rows.push_back(row);
  }
  return rows;
}

Matrix lattice(std::mt19937& rng, int n, int width) {
  const int extent = uniform_int(rng, 3, 12);
  Matrix rows;
  for (int i = 0; i < n; ++i) {
    std::vector<double> row(width);
    for (double& x : row) x = 0.5 * uniform_int(rng, -extent, extent);
    rows.push_back(row);
  }
  return rows;
}

Matrix star(std::mt19937& rng, int n, int width) {
  Matrix rows;
  for (int i = 0; i < n; ++i) {
    const double radius = kGrid[uniform_int(rng, 0, kGridSize - 1)];
    rows.push_back(coin(rng, 0.3) ? std::vector<double>(width, 0.0)
                                  : on_axis(width, uniform_int(rng, 0, width - 1), coin(rng, 0.5) ? radius : -radius));
  }
  return rows;
}

void duplicate_some(Matrix& rows, std::mt19937& rng) {
  for (std::size_t i = 1; i < rows.size(); ++i)
    if (coin(rng, 0.2)) rows[i] = rows[uniform_int(rng, 0, static_cast<int>(i) - 1)];
}

void spoil_some(Matrix& rows, std::mt19937& rng) {
  constexpr std::array<double, 3> kSpoilers{kNaN, kInf, -kInf};
  for (auto& row : rows)
    if (coin(rng, 0.1)) row[uniform_int(rng, 0, static_cast<int>(row.size()) - 1)] = kSpoilers[uniform_int(rng, 0, 2)];
}

Matrix random_rows(std::mt19937& rng, int n, int width) {
  Matrix rows;
  switch (uniform_int(rng, 0, 2)) {
    case 0: rows = blobs(rng, n, width); break;
    case 1: rows = lattice(rng, n, width); break;
    default: rows = star(rng, n, width); break;
  }
  if (coin(rng, 0.3)) StandardizeData().standardize(rows);
  if (coin(rng, 0.3)) duplicate_some(rows, rng);
  if (coin(rng, 0.15)) spoil_some(rows, rng);
  if (coin(rng, 0.1) && n > 0) rows[uniform_int(rng, 0, n - 1)].assign(width, 100.0);
  return rows;
}

// ---------------------------------------------------------------------------

TEST(EpsCalibrator, GridConstantsWalkToTheStoredFallback) {
  double eps = EpsCalibrator::kFirstEps;
  for (int t = 0; t < EpsCalibrator::kTries; ++t) {
    EXPECT_EQ(bits(eps), bits(kGrid[t]));
    eps += EpsCalibrator::kEpsStep;
  }
  EXPECT_EQ(bits(eps), bits(kGrid[kGridSize - 1]));
  EXPECT_EQ(kGrid[kGridSize - 1], 4.000000000000001);
}

// The edge tests below rely on a row exactly one grid value away from another.
TEST(EpsCalibrator, RowsPlacedAGridValueApartAreExactlyThatFarApart) {
  for (const double g : kGrid) {
    EXPECT_EQ(bits(DBScan::GetEuclideanDistance({0.0}, {g})), bits(g));
    EXPECT_EQ(bits(DBScan::GetEuclideanDistance({0.0}, {-g})), bits(g));
    EXPECT_EQ(bits(DBScan::GetEuclideanDistance(on_axis(4, 0, 0.0), on_axis(4, 2, g))), bits(g));
  }
}

TEST(EpsCalibrator, IdenticalRowsAreNoiseFreeAtTheFirstTry) {
  const Observations obs = make_obs(Matrix(6, {0.3, -1.2, 7.0}));
  EXPECT_EQ(bits(calibrate_both_ways(obs, 6)), bits(2.5));
  EXPECT_EQ(bits(calibrate_both_ways(obs, 7)), bits(kGrid[15]));
}

TEST(EpsCalibrator, FewerRowsThanMinSamplesStoreTheValueAfterTheLastTry) {
  const Observations obs = make_obs({{0.0, 0.0}, {0.1, 0.0}, {0.0, 0.1}});
  EXPECT_EQ(bits(calibrate_both_ways(obs, 4)), bits(4.000000000000001));
  EXPECT_EQ(bits(calibrate_both_ways(make_obs({{1.0}}), 2)), bits(4.000000000000001));
}

TEST(EpsCalibrator, NoRowsMeansNoNoise) {
  for (const int min_samples : {-3, 0, 1, 2, 50}) {
    EXPECT_EQ(bits(calibrate_both_ways(make_obs({}), min_samples)), bits(2.5));
    Observations negative_count = make_obs({{1.0}, {2.0, 3.0}});
    negative_count.num_observations = -1;
    EXPECT_EQ(bits(calibrate_both_ways(negative_count, min_samples)), bits(2.5));
  }
}

TEST(EpsCalibrator, EveryRowIsCoreWhenMinSamplesIsAtMostOne) {
  const Observations obs = make_obs({{0.0, 0.0}, {kNaN, 1.0}, {1000.0, kInf}});
  for (const int min_samples : {-7, 0, 1}) EXPECT_EQ(bits(calibrate_both_ways(obs, min_samples)), bits(2.5));
}

TEST(EpsCalibrator, RowsWithANaNOrInfiniteFeatureAreNeverNeighbours) {
  EXPECT_EQ(bits(calibrate_both_ways(make_obs({{0.0, kNaN}, {0.0, kNaN}}), 2)), bits(kGrid[15]));
  EXPECT_EQ(bits(calibrate_both_ways(make_obs({{kInf, 0.0}, {kInf, 0.0}}), 2)), bits(kGrid[15]));
  EXPECT_EQ(bits(calibrate_both_ways(make_obs({{0.0, 0.0}, {0.0, 0.0}, {-kInf, 1.0}}), 2)), bits(kGrid[15]));
}

// Two rows exactly g_t apart are not neighbours at g_t, only at the next value.
TEST(EpsCalibrator, PairExactlyOnAGridValueClearsAtTheNextValue) {
  for (int t = 0; t < EpsCalibrator::kTries; ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(bits(calibrate_both_ways(make_obs({{0.0}, {kGrid[t]}}), 2)), bits(kGrid[t + 1]));
    EXPECT_EQ(bits(calibrate_both_ways(make_obs({on_axis(5, 4, kGrid[t]), on_axis(5, 4, 0.0)}), 2)),
              bits(kGrid[t + 1]));
  }
}

// A middle row whose second-nearest row is exactly g_t away becomes core only
// above g_t, and with it both outer rows.
TEST(EpsCalibrator, CoreRadiusExactlyOnAGridValueClearsAtTheNextValue) {
  for (int t = 0; t < EpsCalibrator::kTries; ++t) {
    SCOPED_TRACE(t);
    const Observations obs = make_obs({{-kGrid[t]}, {0.0}, {kGrid[t]}});
    EXPECT_EQ(bits(calibrate_both_ways(obs, 3)), bits(kGrid[t + 1]));
  }
}

// A border row exactly g_t from a dense core is reached only above g_t.
TEST(EpsCalibrator, BorderRowExactlyOnAGridValueClearsAtTheNextValue) {
  for (int t = 0; t < EpsCalibrator::kTries; ++t) {
    SCOPED_TRACE(t);
    const Matrix core(3, on_axis(3, 1, 0.0));
    Matrix rows = core;
    rows.push_back(on_axis(3, 1, kGrid[t]));
    EXPECT_EQ(bits(calibrate_both_ways(make_obs(rows), 3)), bits(kGrid[t + 1]));
  }
}

TEST(EpsCalibrator, RowsOfUnequalLengthRaiseTheClusterersError) {
  const std::string expected = "Invalid input. Feature set having different dimensions.";
  for (const Matrix& rows : {Matrix{{1.0, 2.0}, {1.0, 2.0, 3.0}}, Matrix{{1.0}, {1.0}, {2.0}, {}}}) {
    EXPECT_EQ(error_of(make_obs(rows), EpsCalibrator::find_noise_free_eps), expected);
    EXPECT_EQ(error_of(make_obs(rows), EpsCalibrator::find_noise_free_eps_by_repeated_runs), expected);
  }
  Observations obs = make_obs({{1.0, 2.0}, {1.0, 2.0, 3.0}});
  EXPECT_THROW(EpsCalibrator::find_noise_free_eps(obs, 0), std::runtime_error);
  EXPECT_THROW(EpsCalibrator::find_noise_free_eps_by_repeated_runs(obs, 0), std::runtime_error);
}

TEST(EpsCalibrator, OnlyTheCountedRowsMatter) {
  Observations obs = make_obs({{0.0, 0.0}, {0.0, 0.0}, {1.0}});
  obs.num_observations = 2;
  EXPECT_EQ(bits(calibrate_both_ways(obs, 2)), bits(2.5));
  obs.num_observations = 1;
  EXPECT_EQ(bits(calibrate_both_ways(obs, 2)), bits(kGrid[15]));
}

// Calibrates `cases` random training sets of min_rows to max_rows rows both
// ways; counts how often each grid index came out (kGridSize: no grid value).
std::array<int, kGridSize + 1> compare_on_random_sets(std::uint32_t seed, int cases, int min_rows, int max_rows) {
  std::mt19937 rng(seed);
  std::array<int, kGridSize + 1> outcomes{};
  for (int c = 0; c < cases && !::testing::Test::HasFailure(); ++c) {
    const int n = uniform_int(rng, min_rows, max_rows);
    const int width = uniform_int(rng, 1, 6);
    const int min_samples = uniform_int(rng, 0, 7);
    const Matrix rows = random_rows(rng, n, width);
    SCOPED_TRACE("case " + std::to_string(c) + ": n " + std::to_string(n) + ", width " + std::to_string(width) +
                 ", min_samples " + std::to_string(min_samples));
    ++outcomes[grid_index(calibrate_both_ways(make_obs(rows), min_samples))];
  }
  return outcomes;
}

TEST(EpsCalibrator, AgreesWithRepeatedRunsOnRandomTrainingSets) {
  const std::array<int, kGridSize + 1> outcomes = compare_on_random_sets(20240611u, 10000, 0, 80);
  // Every grid value, the never-tried fallback included, has to come up for
  // the comparison to cover the whole search; nothing else may come out.
  for (int t = 0; t < kGridSize; ++t) EXPECT_GE(outcomes[t], 50) << "grid value " << t;
  EXPECT_EQ(outcomes[kGridSize], 0);
}

TEST(EpsCalibrator, AgreesWithRepeatedRunsOnLargerTrainingSets) {
  const std::array<int, kGridSize + 1> outcomes = compare_on_random_sets(31337u, 100, 100, 400);
  EXPECT_EQ(outcomes[kGridSize], 0);
}

// Core thresholds up to and past the number of rows, where the core radius
// is the largest distance to another row or does not exist at all.
TEST(EpsCalibrator, AgreesWithRepeatedRunsForEveryMinSamplesUpToPastTheRowCount) {
  std::mt19937 rng(77u);
  for (int c = 0; c < 40; ++c) {
    const int n = uniform_int(rng, 1, 30);
    const Matrix rows = random_rows(rng, n, uniform_int(rng, 1, 4));
    for (int min_samples = 0; min_samples <= n + 2; ++min_samples) {
      SCOPED_TRACE("case " + std::to_string(c) + ", min_samples " + std::to_string(min_samples));
      calibrate_both_ways(make_obs(rows), min_samples);
    }
  }
}

}  // namespace

namespace {

// Standardised rows of one gaussian blob.
Matrix dense_blob(std::uint32_t seed, int n, int width) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, 1.0);
  Matrix rows(n, std::vector<double>(width));
  for (auto& row : rows)
    for (double& x : row) x = noise(rng);
  StandardizeData().standardize(rows);
  return rows;
}

}  // namespace

// Large training sets are mostly settled at the first grid value from a few
// distances per row; the answer must still be the exact one.
TEST(EpsCalibrator, LargeDenseSetsAgreeWithRepeatedRuns) {
  for (const int width : {1, 2, 5}) {
    SCOPED_TRACE("width " + std::to_string(width));
    EXPECT_EQ(bits(calibrate_both_ways(make_obs(dense_blob(4242u + width, 1500, width)), 3)), bits(2.5));
  }
}

// A pair far from the rest, exactly the first grid value apart, with a third
// row beyond: its core radius is 2.5, not below it, so the first grid value
// leaves it noise.
TEST(EpsCalibrator, RowWhoseCoreRadiusIsTheFirstGridValueIsNotSettledEarly) {
  Matrix rows = dense_blob(7u, 600, 2);
  rows.push_back({100.0, 0.0});
  rows.push_back({102.5, 0.0});
  rows.push_back({105.0, 0.0});
  const double eps = calibrate_both_ways(make_obs(rows), 3);
  EXPECT_EQ(grid_index(eps), 1);
}

// Rows on a line whose feature sums are all equal: the order by sum says
// nothing about nearness, so the exact radii decide.
TEST(EpsCalibrator, RowsWithEqualFeatureSumsAgreeWithRepeatedRuns) {
  Matrix rows;
  for (int i = 0; i < 300; ++i) {
    const double t = 0.05 * ((i * 37) % 300);
    rows.push_back({t, -t});
  }
  EXPECT_EQ(bits(calibrate_both_ways(make_obs(rows), 3)), bits(2.5));
  rows.push_back({40.0, -40.0});
  EXPECT_EQ(bits(calibrate_both_ways(make_obs(rows), 3)), bits(kGrid[15]));
}
