// The rows of a FeatureColumns copied row by row in the order of a Z-order
// (Morton) curve through the features. Rows close in every feature are mostly
// close along the curve, which makes it a cheap stand-in for nearness.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "model/FeatureColumns.h"

class ZOrderedRows {
 public:
  // Rows with the same position on the curve keep their order.
  explicit ZOrderedRows(const FeatureColumns& rows);

  std::size_t size() const { return order.size(); }
  std::size_t features() const { return width; }
  // Index in the FeatureColumns of the row at this position along the curve.
  std::size_t row_at(std::size_t position) const { return order[position].second; }
  // Its features() values, contiguous.
  const double* features_at(std::size_t position) const { return values.data() + position * width; }

 private:
  std::size_t width;
  std::vector<std::pair<std::uint64_t, std::size_t>> order;  // curve position, row
  std::vector<double> values;  // feature f of the row at position p at p * width + f
};
