// DetectionService::Job: one pending job on its way through a detection
// pass, from its queue row to its training set, feature matrix and labels.
// Built and owned by the pass for the one job and released when the job is
// decided; a PassObserver may look at it just before that. Fields a step never reached keep their defaults.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "service/DetectionService.h"
#include "service/JobDecision.h"
#include "service/TrainingRecords.h"

struct DetectionService::Job {
  Row row;  // the queue row, USER_IDENTIFIED_CLUSTER set to -1
  std::string client, policy, policy_type, unique_key;
  int job_id = 0;

  // Training-set choice.
  int min_required = 0;   // -1: the workload has no history
  int training_limit = 0;
  int stream_count = 0;
  TrainingRecords training;
  bool calibrated = false;  // calibration was due and ran

  // The job's own row and the matrix it heads.
  std::set<std::string> disabled;   // lower-case features disabled for the policy type
  int observed_features = 0;        // how many of the features in matrix order the row offered
  std::vector<double> observation;  // the job's raw features
  Matrix matrix;                    // the observation, then one row per training record

  // Clustering: the standardised rows, the eps and the labels.
  Observations observations;
  std::vector<int> labels;
  AnomalyStats stats;

  // The training-set kind, the eps, the nearest cluster and the deciding step.
  JobDecision decision;
  // The training-set kind as the detector's operations take it.
  int full_feature_set() const { return full_feature_set_flag(decision.training); }
};
