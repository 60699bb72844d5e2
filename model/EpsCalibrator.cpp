#include "model/EpsCalibrator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>
#include <vector>

#include "model/FeatureColumns.h"
#include "model/SquaredDistance.h"

// Why no clusterer is needed: whether a row ends as noise after a completed
// run does not depend on the order in which the rows are visited. A row is
// noise exactly when it is not a core row and no core row lies strictly
// within eps of it. Two radii per row therefore settle every eps at once:
//   core radius - the (min_samples - 1)-th smallest distance to another row;
//                 the row is core at eps iff it is < eps;
//   reach       - the smaller of the row's own core radius and, over every
//                 other row j, max(core radius of j, distance to j); the row
//                 is not noise at eps iff it is < eps.
// So the first grid value above the largest reach is the answer.
//
// Most training sets are noise free already at the first grid value: every
// row has min_samples - 1 other rows close by. That is settled first from
// upper bounds of the core radii, which cost a few distances per row, and
// only when it cannot be settled so are all core radii computed exactly.
//
// All of it is done on the sums of squares that the clusterer takes the root
// of. std::sqrt is correctly rounded and hence monotone, so it commutes with
// min, max and order statistics: one root of the final sum gives, bit for
// bit, the reach the clusterer's own distances would give.

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// Sum of squared differences from row i to every row, as the clusterer adds
// it up. A NaN sum becomes +inf: such a pair is never within eps either, and
// NaN would break the ordering that selection relies on. Row i's own entry is
// +inf as well, so that it never counts as one of its other rows.
void squared_distances_from(const FeatureColumns& rows, std::size_t i, std::vector<double>& out) {
  out.resize(rows.padded_rows());
  rows.squared_distances_from(i, out.data());
  out.resize(rows.rows());
  for (double& d : out) d = d <= kInf ? d : kInf;
  out[i] = kInf;
}

// The k-th smallest of values (k from 1 to values.size()). A bounded max-heap
// of the k smallest so far costs about one comparison per value, as few
// values displace its top; the worst case is O(size log k).
double kth_smallest(const std::vector<double>& values, std::size_t k, std::vector<double>& heap) {
  heap.assign(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k));
  std::make_heap(heap.begin(), heap.end());
  for (std::size_t j = k; j < values.size(); ++j) {
    if (values[j] >= heap.front()) continue;
    std::pop_heap(heap.begin(), heap.end());
    heap.back() = values[j];
    std::push_heap(heap.begin(), heap.end());
  }
  return heap.front();
}

// Squared core radius of row i: the others_needed-th smallest squared
// distance to another row.
double squared_core_radius(const FeatureColumns& rows, std::size_t i, std::size_t others_needed,
                           std::vector<double>& distances, std::vector<double>& heap) {
  squared_distances_from(rows, i, distances);
  return kth_smallest(distances, others_needed, heap);
}

// The largest squared distance whose root is below the first grid value:
// std::sqrt(d) < kFirstEps exactly when d <= it.
double largest_square_within_first_try() {
  return std::nextafter(least_square_reaching(EpsCalibrator::kFirstEps), 0.0);
}

// Sets each row's position along a Z-order (Morton) curve: the features,
// each scaled to its range and cut to the same number of bits, with their
// bits interleaved from the highest down. Rows close in every feature are
// mostly close along the curve.
void z_order_codes(const FeatureColumns& rows, std::vector<std::pair<std::uint64_t, std::size_t>>& codes) {
  const std::size_t n = rows.rows();
  const std::size_t width = rows.features();
  const int bits = static_cast<int>(std::min<std::size_t>(60 / width, 32));
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
  for (std::size_t i = 0; i < n; ++i) {
    std::uint64_t code = 0;
    for (int b = bits - 1; b >= 0; --b) {
      for (std::size_t f = 0; f < width; ++f) code = (code << 1) | ((cells[i * width + f] >> b) & 1u);
    }
    codes[i].first = code;
  }
}

// True when no row is noise at the first grid value, proven without the
// exact search: a row with others_needed other rows within it is core there,
// and a row that is not is still no noise with a core row within it (its
// reach never exceeds the larger of that row's core radius and their
// distance). The candidates for a row are the rows next to it along a
// Z-order curve through the features, a cheap stand-in for nearness; a row
// without enough of them within reach has its distances to all rows
// computed. False
// when that does not prove it either, leaving the question to the exact
// search. Sets with a NaN or infinite feature are always left to it.
bool noise_free_at_first_try(const FeatureColumns& rows, std::size_t others_needed) {
  // Candidates on each side, and how many rows are worth computing all
  // distances for before the exact search over all rows is cheaper.
  constexpr std::size_t kNeighbours = 8;
  constexpr std::size_t kMostRowsInFull = 64;
  static const double largest_within_first_try = largest_square_within_first_try();
  const std::size_t n = rows.rows();
  const std::size_t width = rows.features();
  if (!rows.all_finite() || others_needed >= n) return false;

  // The rows along the curve, copied in that order row by row.
  std::vector<std::pair<std::uint64_t, std::size_t>> order(n);
  for (std::size_t i = 0; i < n; ++i) order[i] = {0, i};
  if (width > 0) z_order_codes(rows, order);
  std::sort(order.begin(), order.end());
  std::vector<double> sorted(n * width);
  for (std::size_t p = 0; p < n; ++p) {
    for (std::size_t f = 0; f < width; ++f) sorted[p * width + f] = rows.value(order[p].second, f);
  }

  // A window of 2 * side other rows around each position, moved inwards at
  // either end, holds at least others_needed rows (n - 1 >= others_needed).
  const std::size_t side = std::max(kNeighbours, others_needed);
  std::vector<unsigned char> core(n, 0);  // proven core at the first grid value
  std::vector<std::size_t> unsettled;
  for (std::size_t p = 0; p < n; ++p) {
    const std::size_t first = p > side ? std::min(p - side, n - std::min(n, 2 * side + 1)) : 0;
    const std::size_t end = std::min(n, first + 2 * side + 1);
    const double* own = sorted.data() + p * width;
    std::size_t near = 0;
    for (std::size_t q = first; q < end && near < others_needed; ++q) {
      if (q == p) continue;
      if (squared_euclidean(sorted.data() + q * width, own, width) <= largest_within_first_try) ++near;
    }
    if (near == others_needed) {
      core[order[p].second] = 1;
    } else if (unsettled.size() < kMostRowsInFull) {
      unsettled.push_back(order[p].second);
    } else {
      return false;
    }
  }

  std::vector<double> distances;
  std::vector<double> heap;
  std::vector<std::size_t> not_core;
  for (const std::size_t i : unsettled) {
    if (squared_core_radius(rows, i, others_needed, distances, heap) <= largest_within_first_try) {
      core[i] = 1;
    } else {
      not_core.push_back(i);
    }
  }
  for (const std::size_t i : not_core) {
    squared_distances_from(rows, i, distances);  // row i's own entry is +inf
    bool border = false;
    for (std::size_t j = 0; j < n && !border; ++j) border = core[j] && distances[j] <= largest_within_first_try;
    if (!border) return false;
  }
  return true;
}

// Squared core radius of every row, for a core threshold of others_needed
// other rows (at least one).
std::vector<double> squared_core_radii(const FeatureColumns& rows, std::size_t others_needed) {
  const std::size_t n = rows.rows();
  std::vector<double> radii(n, kInf);
  if (others_needed >= n) return radii;  // too few other rows for any core row

  // A row's own +inf entry sorts last, so with others_needed < n it never
  // displaces one of the others.
  std::vector<double> distances;
  std::vector<double> heap;
  for (std::size_t i = 0; i < n; ++i) radii[i] = squared_core_radius(rows, i, others_needed, distances, heap);
  return radii;
}

// The largest squared reach over all rows (at least one). A row's reach never
// exceeds its core radius, so rows are taken by falling core radius and the
// search ends at the first whose core radius cannot beat the largest reach
// found; with one distant outlier that is after a single row.
double largest_squared_reach(const FeatureColumns& rows, const std::vector<double>& core) {
  std::vector<std::size_t> order(rows.rows());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(), [&core](std::size_t a, std::size_t b) { return core[a] > core[b]; });

  double largest = -kInf;
  std::vector<double> distances;
  for (const std::size_t i : order) {
    if (core[i] <= largest) break;
    squared_distances_from(rows, i, distances);
    double reach = core[i];
    // The own +inf entry leaves reach untouched.
    for (std::size_t j = 0; j < distances.size(); ++j) reach = std::min(reach, std::max(core[j], distances[j]));
    largest = std::max(largest, reach);
  }
  return largest;
}

// Walks the grid and returns the first value noise_free accepts, or the value
// after the last try when it accepts none.
template <typename NoiseFree>
double first_noise_free_grid_value(NoiseFree noise_free) {
  double eps = EpsCalibrator::kFirstEps;
  for (int t = 0; t < EpsCalibrator::kTries; ++t, eps += EpsCalibrator::kEpsStep) {
    if (noise_free(eps)) return eps;
  }
  return eps;
}

}  // namespace

double EpsCalibrator::find_noise_free_eps(const Observations& obs, int min_samples) {
  const FeatureColumns rows(obs);
  // Two rows are enough for the clusterer to compute a pair, and a pair of
  // unequal rows makes it throw.
  if (rows.uneven()) throw std::runtime_error(DBScan::kUnequalRowsMessage);
  // A row counts itself, so with min_samples <= 1 every row is core; without
  // rows there is nothing to be noise.
  if (min_samples <= 1 || rows.rows() == 0) return kFirstEps;
  if (noise_free_at_first_try(rows, static_cast<std::size_t>(min_samples - 1))) return kFirstEps;

  const std::vector<double> core = squared_core_radii(rows, static_cast<std::size_t>(min_samples - 1));
  const double reach = std::sqrt(largest_squared_reach(rows, core));
  return first_noise_free_grid_value([reach](double eps) { return reach < eps; });
}

double EpsCalibrator::find_noise_free_eps_by_repeated_runs(const Observations& obs, int min_samples) {
  return first_noise_free_grid_value([&](double eps) {
    DBScan model(eps, min_samples, 1);
    std::vector<int> labels;
    model.Run(obs, labels);
    return std::find(labels.begin(), labels.end(), -1) == labels.end();
  });
}
