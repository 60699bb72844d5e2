#include "model/LazyDistanceMatrix.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "model/DBScanModelImpl.h"

namespace {

constexpr double kNotComputed = -1.0;

}  // namespace

LazyDistanceMatrix::LazyDistanceMatrix(int n)
    : side(static_cast<std::size_t>(std::max(n, 0))), computed(side, 0), uncomputed(side) {}

void LazyDistanceMatrix::load_rows(const Observations& obs) {
  FeatureColumns loaded(obs);
  if (!table && uncomputed < side && !loaded.same_values(columns)) keep_computed_rows();
  columns = std::move(loaded);
  scratch.resize(columns.padded_rows());
}

const double* LazyDistanceMatrix::row(int r) {
  const std::size_t own = static_cast<std::size_t>(r);
  if (!computed[own]) {
    // With rows of unequal length every row has a partner of another
    // length, so the first pair to compute fails.
    if (columns.uneven() && uncomputed > 1) throw std::runtime_error(DBScan::kUnequalRowsMessage);
    if (table) fill_table_row(own);
    computed[own] = 1;
    --uncomputed;
  }
  if (table) return table.get() + own * side;
  columns.squared_distances_from(own, scratch.data());
  scratch[own] = kNotComputed;
  return scratch.data();
}

double LazyDistanceMatrix::cached(int i, int j) const {
  if (i < 0 || j < 0 || i >= size() || j >= size() || i == j) return kNotComputed;
  const std::size_t a = static_cast<std::size_t>(i);
  const std::size_t b = static_cast<std::size_t>(j);
  if (!computed[a] && !computed[b]) return kNotComputed;
  if (!table) return std::sqrt(columns.squared_distance(a, b));
  return std::sqrt(computed[a] ? table[a * side + b] : table[b * side + a]);
}

// Writes every computed row into a new table, from the rows loaded until now.
void LazyDistanceMatrix::keep_computed_rows() {
  table = std::make_unique_for_overwrite<double[]>(side * side);
  for (std::size_t r = 0; r < side; ++r) {
    if (!computed[r]) continue;
    columns.squared_distances_from(r, scratch.data());
    double* out = table.get() + r * side;
    std::copy(scratch.begin(), scratch.begin() + static_cast<std::ptrdiff_t>(side), out);
    out[r] = kNotComputed;
  }
}

void LazyDistanceMatrix::fill_table_row(std::size_t r) {
  double* out = table.get() + r * side;
  for (std::size_t j = 0; j < side; ++j) {
    out[j] = computed[j] ? table[j * side + r] : columns.squared_distance(r, j);
  }
  out[r] = kNotComputed;
}
