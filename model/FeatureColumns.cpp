#include "model/FeatureColumns.h"

#include <algorithm>
#include <cmath>
#include <cstring>

FeatureColumns::FeatureColumns(const Observations& obs)
    : n(static_cast<std::size_t>(std::max(obs.num_observations, 0))),
      stride((n + kBlock - 1) / kBlock * kBlock),
      width(n > 0 ? obs.data[0].size() : 0),
      values(stride * width, 0.0) {
  for (std::size_t j = 0; j < n; ++j) {
    const std::vector<double>& row = obs.data[j];
    if (row.size() != width) {
      uneven_rows = true;
      return;
    }
    for (std::size_t f = 0; f < width; ++f) values[f * stride + j] = row[f];
  }
}

bool FeatureColumns::all_finite() const {
  return std::all_of(values.begin(), values.end(), [](double x) { return std::isfinite(x); });
}

bool FeatureColumns::same_values(const FeatureColumns& other) const {
  // Compared as bits, so that a NaN feature is the same as itself.
  return !uneven_rows && !other.uneven_rows && values.size() == other.values.size() &&
         (values.empty() || std::memcmp(values.data(), other.values.data(), values.size() * sizeof(double)) == 0);
}

double FeatureColumns::squared_distance(std::size_t r, std::size_t j) const {
  double sum = 0.0;
  for (std::size_t f = 0; f < width; ++f) {
    const double x = values[f * stride + r] - values[f * stride + j];
    sum += x * x;
  }
  return sum;
}

void FeatureColumns::squared_distances_from(std::size_t r, double* out) const {
  for (std::size_t block = 0; block < stride; block += kBlock) {
    double sums[kBlock] = {};
    for (std::size_t f = 0; f < width; ++f) {
      const double own = values[f * stride + r];
      const double* const others = values.data() + f * stride + block;
      for (std::size_t k = 0; k < kBlock; ++k) {
        const double x = own - others[k];
        sums[k] += x * x;
      }
    }
    for (std::size_t k = 0; k < kBlock; ++k) out[block + k] = sums[k];
  }
}
