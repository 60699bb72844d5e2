#include "model/EpsCalibrator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "model/FeatureColumns.h"
#include "model/NoiseFreeProof.h"
#include "model/NoiseReach.h"
#include "model/SquaredDistance.h"

// No clusterer is needed: a row is noise at eps exactly when its reach (see
// NoiseReach.h) is not below eps, so the first grid value above the largest
// reach is the answer.
//
// Most training sets are noise free already at the first grid value: every
// row has min_samples - 1 other rows close by. That is settled first by a
// proof that costs a few distances per row, and only when none is found is
// every reach computed exactly.

namespace {

// The largest squared distance whose root is below the first grid value:
// std::sqrt(d) < kFirstEps exactly when d <= it.
double largest_square_within_first_try() {
  return std::nextafter(least_square_reaching(EpsCalibrator::kFirstEps), 0.0);
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
  const std::size_t others_needed = static_cast<std::size_t>(min_samples - 1);
  static const double largest_within_first_try = largest_square_within_first_try();
  if (noise_free_proof::found(rows, others_needed, largest_within_first_try)) return kFirstEps;

  const std::vector<double> core = noise_reach::squared_core_radii(rows, others_needed);
  const double reach = std::sqrt(noise_reach::largest_squared_reach(rows, core));
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
