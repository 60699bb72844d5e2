#include "model/ZOrderedRows.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// Each feature scaled to its range and cut to cell numbers of `bits` bits,
// row by row. A feature without a finite, non-zero range is all cell 0.
std::vector<std::uint64_t> grid_cells(const FeatureColumns& rows, int bits) {
  const std::size_t n = rows.rows();
  const std::size_t width = rows.features();
  const double top = std::ldexp(1.0, bits) - 1.0;
  std::vector<std::uint64_t> cells(n * width);
  for (std::size_t f = 0; f < width; ++f) {
    double low = kInf;
    double high = -kInf;
    for (std::size_t i = 0; i < n; ++i) {
      low = std::min(low, rows.value(i, f));
      high = std::max(high, rows.value(i, f));
    }
    const double range = high - low;
    for (std::size_t i = 0; i < n; ++i) {
      const double scaled = range > 0.0 && range < kInf ? (rows.value(i, f) - low) / range * top : 0.0;
      cells[i * width + f] = static_cast<std::uint64_t>(std::clamp(scaled, 0.0, top));
    }
  }
  return cells;
}

// Sets each row's position along the curve: the bits of its cells
// interleaved from the highest down, so that every feature weighs alike.
void z_order_codes(const FeatureColumns& rows, std::vector<std::pair<std::uint64_t, std::size_t>>& codes) {
  const std::size_t width = rows.features();
  // At most 60 bits in all, so that a code fits in 64 bits.
  const int bits = static_cast<int>(std::min<std::size_t>(60 / width, 32));
  const std::vector<std::uint64_t> cells = grid_cells(rows, bits);
  for (std::size_t i = 0; i < rows.rows(); ++i) {
    std::uint64_t code = 0;
    for (int b = bits - 1; b >= 0; --b) {
      for (std::size_t f = 0; f < width; ++f) code = (code << 1) | ((cells[i * width + f] >> b) & 1u);
    }
    codes[i].first = code;
  }
}

}  // namespace

ZOrderedRows::ZOrderedRows(const FeatureColumns& rows) : width(rows.features()), order(rows.rows()) {
  const std::size_t n = rows.rows();
  for (std::size_t i = 0; i < n; ++i) order[i] = {0, i};
  if (width > 0) z_order_codes(rows, order);
  std::sort(order.begin(), order.end());
  values.resize(n * width);
  for (std::size_t p = 0; p < n; ++p) {
    for (std::size_t f = 0; f < width; ++f) values[p * width + f] = rows.value(order[p].second, f);
  }
}
