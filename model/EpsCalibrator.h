// Finds the eps that model calibration stores for a training set: the first
// value of a fixed grid at which a DBSCAN run (run mode 1) leaves no row as
// noise. Both ways offered return the same double, bit for bit, for any input.
#pragma once

#include "model/DBScanModelImpl.h"

class EpsCalibrator {
 public:
  // The grid is walked by repeated double addition, so its values are
  // kFirstEps, kFirstEps + kEpsStep, (kFirstEps + kEpsStep) + kEpsStep, ...
  // When all kTries values leave noise, the value after the last one tried
  // (4.000000000000001) is the result.
  static constexpr double kFirstEps = 2.5;
  static constexpr double kEpsStep = 0.1;
  static constexpr int kTries = 15;

  // Never runs the clusterer: O(n^2) time and O(n) memory for n rows. Throws
  // the clusterer's std::runtime_error when two of the first
  // obs.num_observations rows differ in length.
  static double find_noise_free_eps(const Observations& obs, int min_samples);

  // Runs a fresh DBScan for each grid value in turn, the way calibration was
  // first defined; kept as the yardstick for find_noise_free_eps.
  static double find_noise_free_eps_by_repeated_runs(const Observations& obs, int min_samples);
};
