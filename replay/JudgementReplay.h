// JudgementReplay: the judgement the next detection pass would give one job
// of DATA_TO_PROCESS, found by running the detector's own pass on an
// in-memory copy of that job's workload (history, model, users' pending
// verdicts) with the job as the only pending job. The database itself is
// attached read-only and never written, so this works on a read-only file
// and while the service runs. Throws std::runtime_error with a message for
// the operator when the file is not a detector database or holds no such job.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "model/ClosestClusterInfo.h"
#include "contract/AnomalyStat.h"
#include "service/JobDecision.h"
#include "storage/Value.h"

struct ReplaySettings {
  std::string config_file;  // as the service's -config_file; empty: built-in defaults
  double eps = 0.0;         // as -eps
  int min_samples = 3;      // as -min_samples
};

// One feature of the job against the range of its nearest cluster's members.
struct FeatureReading {
  std::string column;
  double value = 0;
  std::optional<std::pair<double, double>> usual;  // none: no member to compare with
  bool in_range = true;
};

// Where the job stands after the replayed pass.
enum class ReplayedOutcome {
  history,    // accepted into the history
  anomaly,    // reported
  processed,  // marked processed, neither accepted nor reported
  pending,    // left pending: the next pass meets it again
};

// "history", "anomaly", "processed" or "pending", as explain prints it.
const char* outcome_name(ReplayedOutcome outcome);

struct Judgement {
  // How the job stands in the database now.
  std::string unique_key;
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row job;
  bool reported_already = false;  // processed: reported by an earlier pass
  long long verdicts_first = 0;   // users' verdicts on the workload the pass folds in first
  long long earlier_pending = 0;  // pending jobs of the workload the pass judges before this one

  // What the pass did, in its own words: its log messages for this job.
  std::vector<std::pair<int, std::string>> steps;
  std::string standard_output;  // what the pass printed (its inner-failure line)

  // What the pass worked with (fields a step never reached keep defaults).
  bool judged = false;  // the pass took the job through its steps
  int min_required = 0, training_limit = 0;
  TrainingKind training = TrainingKind::none;
  std::size_t training_size = 0;
  std::vector<std::string> features;  // the job's own row, in matrix order
  std::vector<double> observation;
  std::size_t training_width = 0;     // features per training row
  bool calibration_due = false;
  std::optional<double> stored_eps;   // the workload's eps after the pass, if any
  bool clustered = false;             // reached DBSCAN
  double model_eps = 0, adjusted_eps = 0;
  int sensitivity = 0;
  int label = 0;
  std::optional<ClosestClusterInfo> nearest;
  std::vector<FeatureReading> readings;

  // The step that decided the job, with the pass's own message for it.
  DecidingRule rule = DecidingRule::none;
  std::string deciding_words;

  // The outcome, a short reason, and for an anomaly the payload the pass
  // would write.
  ReplayedOutcome outcome = ReplayedOutcome::pending;
  std::string reason, payload;
  // Set when the job cannot be judged: why, and what would change it.
  enum class Unjudgeable { no, unequal_features, features_disabled, pass_failed };
  Unjudgeable unjudgeable = Unjudgeable::no;
  std::string cannot_judge, hint;
};

Judgement replay_judgement(const std::string& database_path, const std::string& unique_key,
                           const ReplaySettings& settings);

// The UNIQUE_KEYs of the pending jobs, in the order a pass meets them, at
// most limit of them.
std::vector<std::string> pending_job_keys(const std::string& database_path, long long limit);
