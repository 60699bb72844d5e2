#include "model/NoiseFreeProof.h"

#include <algorithm>
#include <vector>

#include "model/NoiseReach.h"
#include "model/SquaredDistance.h"
#include "model/ZOrderedRows.h"

namespace noise_free_proof {

namespace {

// A row with others_needed other rows within eps is core, and a row that is
// not is still no noise with a core row within eps (its reach never exceeds
// the larger of that row's core radius and their distance). The candidates
// for a row are the rows next to it along a Z-order curve; a row without
// enough of them within eps has its distances to all rows computed.
class Search {
 public:
  Search(const FeatureColumns& rows, std::size_t others_needed, double largest_square_within)
      : rows(rows), others_needed(others_needed), limit(largest_square_within), core(rows.rows(), 0) {}

  // Marks the rows shown core by their neighbours along the curve and lists
  // the others; false when there are more of them than are worth settling
  // in full.
  bool settle_along_curve();
  // Settles each listed row from its distances to all rows: core by its core
  // radius, or else no noise by a core row within eps. False when one is
  // noise.
  bool settle_in_full();

 private:
  // Candidates on each side, and how many rows are worth computing all
  // distances for before the exact search over all rows is cheaper.
  static constexpr std::size_t kNeighbours = 8;
  static constexpr std::size_t kMostRowsInFull = 64;

  // How many of the rows around position p along the curve lie within eps;
  // counting stops at others_needed.
  std::size_t near_along_curve(const ZOrderedRows& along, std::size_t p) const;
  // True when a row proven core lies within eps of row i.
  bool has_core_within(std::size_t i, std::vector<double>& distances) const;

  const FeatureColumns& rows;
  const std::size_t others_needed;
  const double limit;                // a squared distance is within eps when <= limit
  std::vector<unsigned char> core;   // proven core, by index in rows
  std::vector<std::size_t> unsettled;
};

bool Search::settle_along_curve() {
  const ZOrderedRows along(rows);
  for (std::size_t p = 0; p < along.size(); ++p) {
    if (near_along_curve(along, p) == others_needed) {
      core[along.row_at(p)] = 1;
    } else if (unsettled.size() < kMostRowsInFull) {
      unsettled.push_back(along.row_at(p));
    } else {
      return false;
    }
  }
  return true;
}

std::size_t Search::near_along_curve(const ZOrderedRows& along, std::size_t p) const {
  // A window of 2 * side other rows around each position, moved inwards at
  // either end, holds at least others_needed rows (n - 1 >= others_needed).
  const std::size_t n = along.size();
  const std::size_t side = std::max(kNeighbours, others_needed);
  const std::size_t first = p > side ? std::min(p - side, n - std::min(n, 2 * side + 1)) : 0;
  const std::size_t end = std::min(n, first + 2 * side + 1);
  const double* own = along.features_at(p);
  std::size_t near = 0;
  for (std::size_t q = first; q < end && near < others_needed; ++q) {
    if (q == p) continue;
    if (squared_euclidean(along.features_at(q), own, along.features()) <= limit) ++near;
  }
  return near;
}

bool Search::settle_in_full() {
  std::vector<double> distances;
  std::vector<double> heap;
  std::vector<std::size_t> not_core;
  for (const std::size_t i : unsettled) {
    if (noise_reach::squared_core_radius(rows, i, others_needed, distances, heap) <= limit) {
      core[i] = 1;
    } else {
      not_core.push_back(i);
    }
  }
  // Only now, with every core row found, can a border row be told from noise.
  return std::all_of(not_core.begin(), not_core.end(),
                     [&](std::size_t i) { return has_core_within(i, distances); });
}

bool Search::has_core_within(std::size_t i, std::vector<double>& distances) const {
  noise_reach::squared_distances_from(rows, i, distances);  // row i's own entry is +inf
  bool border = false;
  for (std::size_t j = 0; j < rows.rows() && !border; ++j) border = core[j] && distances[j] <= limit;
  return border;
}

}  // namespace

bool found(const FeatureColumns& rows, std::size_t others_needed, double largest_square_within) {
  if (!rows.all_finite() || others_needed >= rows.rows()) return false;
  Search search(rows, others_needed, largest_square_within);
  return search.settle_along_curve() && search.settle_in_full();
}

}  // namespace noise_free_proof
