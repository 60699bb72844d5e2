// DetectionService::Job: one pending job on its way through a detection
// pass, from its queue row to its training set and feature matrix. Built and
// owned by the pass for the one job, released when the job is decided.
#pragma once

#include <string>
#include <vector>

#include "service/DetectionService.h"
#include "service/TrainingRecords.h"

struct DetectionService::Job {
  Row row;  // the queue row, USER_IDENTIFIED_CLUSTER set to -1
  std::string client, policy, policy_type, unique_key;
  int job_id = 0;
  TrainingRecords training;
  int full_feature_set = 0;
  std::vector<double> observation;  // the job's raw features
  Matrix matrix;                    // the observation, then one row per training record
};
