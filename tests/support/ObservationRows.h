// Test helpers for the clusterer's and the calibrator's units: the
// Observations of a matrix of rows, and points on a line.
#pragma once

#include <vector>

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

}  // namespace tsanomaly_test
