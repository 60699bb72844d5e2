// JobDecision: what a detection pass decided about one job and why, as the
// pass itself records it on the job (DetectionService::Job::decision). Meant
// for readers outside the service (explain, the console's count of jobs the
// next pass cannot judge): typed values, so nothing is parsed from log text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "model/ClosestClusterInfo.h"

// The training set a job was compared with. The numbers are the detector's
// own flag (full_feature_set) where an operation takes it as an int.
enum class TrainingKind {
  none = -1,     // no training set was chosen
  fallback = 0,  // the workload's two-feature history across storages
  full = 1,      // the five features of the job's own storage
};

inline int full_feature_set_flag(TrainingKind kind) { return static_cast<int>(kind); }

// The step that decided the job, in pass order. Each names one outcome.
enum class DecidingRule {
  none,                      // no step decided (yet)
  excluded_client,           // history: the client is excluded
  excluded_policy_type,      // history: the policy type is excluded
  excluded_client_policy,    // history: the policy on that client is excluded
  stream_count_failed,       // history: the stream's history could not be counted
  stream_lacks_history,      // history: the job's stream has no history yet
  minimum_failed,            // history: the minimum training size could not be read
  workload_lacks_history,    // history: the workload has no history at all
  too_little_training,       // history: fewer training rows than the minimum
  features_disabled,         // pending: every feature is disabled for the policy type
  clustering_failed,         // processed: the clusterer gave no label for every row
  clustered,                 // history: the job lies in a cluster
  long_gap,                  // history: the workload's previous backup is long past
  user_verdict,              // history: a user-confirmed job lies within eps
  cluster_range,             // history: every feature is inside the nearest cluster's range
  reported,                  // anomaly: reported into ANOMALY_DATA
  judgement_failed,          // pending: standardising, clustering or a rule failed
  pass_failed,               // pending: a failure ended the pass at this job
};

struct JobDecision {
  DecidingRule rule = DecidingRule::none;
  // The pass's own log message for the deciding step (for pass_failed and
  // judgement_failed, what failed), as the log carries it.
  std::string words;
  TrainingKind training = TrainingKind::none;
  double model_eps = 0;     // the workload's eps (or the command line's)
  double adjusted_eps = 0;  // scaled by the sensitivity: what the clusterer used
  // The cluster nearest to an outlier that reached the cluster-range rule.
  std::optional<ClosestClusterInfo> nearest;
};
