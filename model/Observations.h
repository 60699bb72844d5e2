// The matrix handed to the clusterer and the calibrator: one row of doubles
// per job. Only the first num_observations rows count, whatever the size of
// data; all those rows must have the same length.
#pragma once

#include <vector>

struct Observations {
  std::vector<std::vector<double>> data;
  int num_features = 0;
  int num_observations = 0;
};
