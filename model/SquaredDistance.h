// How two feature rows are compared: by the sum of their squared differences,
// added up strictly in feature order, and by the eps test made on that sum.
// Every unit that measures rows uses these, so all of them get the same bits.
#pragma once

#include <cstddef>

// A distance is the root of this sum. Subtracting b's feature from a's or the
// other way round gives the same square, as negating a difference is exact.
inline double squared_euclidean(const double* a, const double* b, std::size_t width) {
  double sum = 0.0;
  for (std::size_t i = 0; i < width; ++i) {
    const double x = b[i] - a[i];
    sum += x * x;
  }
  return sum;
}

// The least sum of squares whose root is not below eps, so that for every sum
// s, eps > std::sqrt(s) exactly when s < it: a correctly rounded root never
// decreases. Lets an eps test skip the root. -inf when no root is below eps
// (eps not above 0, or NaN).
double least_square_reaching(double eps);
