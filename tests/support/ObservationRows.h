// Test helpers for the clusterer's and the calibrator's units: the
// Observations of a matrix of rows, points on a line, and whether a full
// clustering at eps leaves any row as noise (the calibrator's criterion).
#pragma once

#include <algorithm>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "model/Observations.h"

namespace tsanomaly_test {

using Matrix = std::vector<std::vector<double>>;

// Every row counts; the width is the first row's.
inline Observations make_obs(const Matrix& rows) {
  Observations obs;
  obs.data = rows;
  obs.num_features = rows.empty() ? 0 : static_cast<int>(rows.front().size());
  obs.num_observations = static_cast<int>(rows.size());
  return obs;
}

// One-feature rows at these positions.
inline Matrix on_a_line(const std::vector<double>& positions) {
  Matrix rows;
  for (const double x : positions) rows.push_back({x});
  return rows;
}

// Whether clustering rows in full (run mode 1) at eps leaves a noise row.
inline bool any_noise(const Matrix& rows, double eps, int min_samples) {
  DBScan model(eps, min_samples, 1);
  std::vector<int> labels;
  model.Run(make_obs(rows), labels);
  return std::find(labels.begin(), labels.end(), -1) != labels.end();
}

}  // namespace tsanomaly_test
