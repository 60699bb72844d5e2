// The counted rows of an Observations stored feature by feature, so that one
// row's squared distances to all others come from vectorised loops over
// contiguous memory, added up bit for bit as squared_euclidean adds them.
#pragma once

#include <cstddef>
#include <vector>

#include "model/Observations.h"

class FeatureColumns {
 public:
  FeatureColumns() = default;  // no rows

  // Rows of unequal length are not refused, only noted (uneven()): whoever
  // needs a distance between two of them decides how to fail.
  explicit FeatureColumns(const Observations& obs);

  std::size_t rows() const { return n; }
  std::size_t features() const { return width; }
  // rows() rounded up to whole blocks of zero rows: how many sums
  // squared_distances_from writes.
  std::size_t padded_rows() const { return stride; }
  double value(std::size_t row, std::size_t feature) const { return values[feature * stride + row]; }

  // Two rows differ in length. The values are then loaded only up to the
  // first such row, the rest are 0.0.
  bool uneven() const { return uneven_rows; }
  bool all_finite() const;  // no NaN or infinite feature
  // The same rows, bit for bit; never true when either is uneven.
  bool same_values(const FeatureColumns& other) const;

  // Between rows r and j, r's feature first.
  double squared_distance(std::size_t r, std::size_t j) const;
  // From row r to every row, padding included, into out (padded_rows()
  // values). Row r's own entry is 0.0.
  void squared_distances_from(std::size_t r, double* out) const;

 private:
  // Rows are handled kBlock at a time: a fixed-size block is what the
  // compiler turns into vector instructions at -O2.
  static constexpr std::size_t kBlock = 4;

  std::size_t n = 0;
  std::size_t stride = 0;  // n rounded up to whole blocks
  std::size_t width = 0;
  std::vector<double> values;  // feature f of row j at f * stride + j
  bool uneven_rows = false;
};
