#include "model/NoiseReach.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace noise_reach {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

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

}  // namespace

void squared_distances_from(const FeatureColumns& rows, std::size_t i, std::vector<double>& out) {
  out.resize(rows.padded_rows());
  rows.squared_distances_from(i, out.data());
  out.resize(rows.rows());
  for (double& d : out) d = d <= kInf ? d : kInf;
  out[i] = kInf;
}

// A row's own +inf entry sorts last, so with others_needed < n it never
// displaces one of the others.
double squared_core_radius(const FeatureColumns& rows, std::size_t i, std::size_t others_needed,
                           std::vector<double>& distances, std::vector<double>& heap) {
  squared_distances_from(rows, i, distances);
  return kth_smallest(distances, others_needed, heap);
}

std::vector<double> squared_core_radii(const FeatureColumns& rows, std::size_t others_needed) {
  const std::size_t n = rows.rows();
  std::vector<double> radii(n, kInf);
  if (others_needed >= n) return radii;

  std::vector<double> distances;
  std::vector<double> heap;
  for (std::size_t i = 0; i < n; ++i) radii[i] = squared_core_radius(rows, i, others_needed, distances, heap);
  return radii;
}

// A row's reach never exceeds its core radius, so rows are taken by falling
// core radius and the search ends at the first whose core radius cannot beat
// the largest reach found; with one distant outlier that is after a single
// row.
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

}  // namespace noise_reach
