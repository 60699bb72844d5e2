#include "model/EpsCalibrator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <vector>

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
// All of it is done on the sums of squares that the clusterer takes the root
// of. std::sqrt is correctly rounded and hence monotone, so it commutes with
// min, max and order statistics: one root of the final sum gives, bit for
// bit, the reach the clusterer's own distances would give.

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr const char* kUnequalRows = DBScan::kUnequalRowsMessage;

// The first obs.num_observations rows, stored feature by feature: the
// distances from one row to all others then come from loops over contiguous
// memory that the compiler vectorises.
class FeatureColumns {
 public:
  explicit FeatureColumns(const Observations& obs);

  std::size_t rows() const { return n; }

  // Sum of squared differences from row i to every row, added up in feature
  // order exactly as the clusterer does. A NaN sum becomes +inf: such a pair
  // is never within eps either, and NaN would break the ordering that
  // selection relies on. Row i's own entry is +inf as well, so that it never
  // counts as one of its other rows.
  void squared_distances_from(std::size_t i, std::vector<double>& out) const;

 private:
  // Rows are handled kBlock at a time: a fixed-size block is what the
  // compiler turns into vector instructions at -O2. Zero rows pad the last
  // block; their sums are dropped.
  static constexpr std::size_t kBlock = 4;

  std::size_t n;
  std::size_t stride;  // n rounded up to whole blocks
  std::size_t width;
  std::vector<double> values;  // feature f of row j at f * stride + j
};

FeatureColumns::FeatureColumns(const Observations& obs)
    : n(static_cast<std::size_t>(std::max(obs.num_observations, 0))),
      stride((n + kBlock - 1) / kBlock * kBlock),
      width(n > 0 ? obs.data[0].size() : 0),
      values(stride * width, 0.0) {
  for (std::size_t j = 0; j < n; ++j) {
    const std::vector<double>& row = obs.data[j];
    // Two rows are enough for the clusterer to compute a pair, and a pair
    // of unequal rows makes it throw.
    if (row.size() != width) throw std::runtime_error(kUnequalRows);
    for (std::size_t f = 0; f < width; ++f) values[f * stride + j] = row[f];
  }
}

void FeatureColumns::squared_distances_from(std::size_t i, std::vector<double>& out) const {
  out.resize(stride);
  for (std::size_t block = 0; block < stride; block += kBlock) {
    double sums[kBlock] = {};
    for (std::size_t f = 0; f < width; ++f) {
      const double own = values[f * stride + i];
      const double* const others = values.data() + f * stride + block;
      for (std::size_t k = 0; k < kBlock; ++k) {
        // The clusterer may subtract the other way round; negating is exact,
        // so the square is the same.
        const double x = own - others[k];
        sums[k] += x * x;
      }
    }
    for (std::size_t k = 0; k < kBlock; ++k) out[block + k] = sums[k] <= kInf ? sums[k] : kInf;
  }
  out.resize(n);
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
  for (std::size_t i = 0; i < n; ++i) {
    rows.squared_distances_from(i, distances);
    radii[i] = kth_smallest(distances, others_needed, heap);
  }
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
    rows.squared_distances_from(i, distances);
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
  // A row counts itself, so with min_samples <= 1 every row is core; without
  // rows there is nothing to be noise.
  if (min_samples <= 1 || rows.rows() == 0) return kFirstEps;

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
