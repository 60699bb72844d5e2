#include "model/SquaredDistance.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x); }

// The values the eps tests meet: the calibration grid as it is walked, and a
// few radii the detection pass scales it to.
std::vector<double> radii_to_check() {
  std::vector<double> radii{0.1, 0.3, 1.0, 1e-300, 7.25, 1e10};
  double eps = 2.5;
  for (int t = 0; t < 16; ++t, eps += 0.1) radii.push_back(eps);
  return radii;
}

}  // namespace

TEST(SquaredDistance, AddsSquaredDifferencesInFeatureOrder) {
  const std::vector<double> a{1.0, 2.0, 3.0};
  const std::vector<double> b{4.0, 6.0, 3.0};
  EXPECT_EQ(squared_euclidean(a.data(), b.data(), 3), 25.0);
  EXPECT_EQ(squared_euclidean(a.data(), b.data(), 0), 0.0);
  // 1e16 + 1 rounds back to 1e16, twice; summed backwards it would be 1e16 + 2.
  const std::vector<double> c{1e8, 1.0, 1.0};
  const std::vector<double> zero(3, 0.0);
  EXPECT_EQ(bits(squared_euclidean(zero.data(), c.data(), 3)), bits(1e16));
}

TEST(SquaredDistance, EitherRowFirstGivesTheSameBits) {
  const std::vector<double> a{0.1, -7.3, 1e-9, 3.3};
  const std::vector<double> b{0.7, 2.9, -4e-3, 1.1};
  EXPECT_EQ(bits(squared_euclidean(a.data(), b.data(), 4)), bits(squared_euclidean(b.data(), a.data(), 4)));
}

TEST(SquaredDistance, LeastSquareReachingSplitsSumsExactlyAtEps) {
  for (const double eps : radii_to_check()) {
    SCOPED_TRACE(eps);
    const double limit = least_square_reaching(eps);
    EXPECT_GE(std::sqrt(limit), eps);
    EXPECT_LT(std::sqrt(std::nextafter(limit, 0.0)), eps);
  }
}

TEST(SquaredDistance, NoSumIsBelowAnEpsThatIsNotPositive) {
  EXPECT_EQ(least_square_reaching(0.0), -kInf);
  EXPECT_EQ(least_square_reaching(-1.0), -kInf);
  EXPECT_EQ(least_square_reaching(std::numeric_limits<double>::quiet_NaN()), -kInf);
}
