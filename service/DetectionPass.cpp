// One detection pass: fold in users' verdicts, read the settings, then take
// every pending job through its steps in a fixed order, the first step that
// decides ending the job. Each step is a function of its own, named after
// what it decides; those after standardisation are in OutlierJudgement.cpp.
#include <set>

#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "service/FeatureMatrix.h"
#include "service/JobKey.h"
#include "service/PassSettings.h"
#include "service/PassObserver.h"
#include "service/PendingJob.h"
#include "platform/StopSignal.h"
#include "service/TrainingRecords.h"
#include "storage/StatementCache.h"
#include "util/Text.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using job_key::cell;

namespace {

// A single-stream job trains on at most this many of its latest jobs,
// whatever the configured maximum: a year of daily backups.
constexpr int kSingleStreamTrainingLimit = 365;

}  // namespace


void DetectionService::do_detection() {
  try {
    accomodate_user_feedback_received();
  } catch (...) {
    pass_log(kLogProgress, "Error occurred during incorporating user feedback into training set.");
  }
  const PassSettings settings = PassSettings::read(config_file);

  Rows pending;
  pass_log(kLogProgress, "Getting data for detection from database.");
  try {
    get_data_for_detection(pending);
  } catch (...) {
    pass_log(kLogProgress, "Could not get data for detection.");
    return;
  }
  pass_log(kLogProgress, "Completed getting data for detection.");

  // Every job runs the same few texts: they are compiled once for the jobs
  // of the pass (see StatementCache).
  StatementCache statements(db->handle);
  pass_statements = &statements;
  struct Lending {
    StatementCache*& lent;
    ~Lending() { lent = nullptr; }
  } const lending{pass_statements};
  for (const Row& job : pending) {
    // A stop finishes the job in hand; the rest stay pending for the next start.
    if (StopSignal::requested()) {
      return;
    }
    if (!judge_pending_job(job, settings)) {
      return;
    }
  }
}

// Exclusions, training-set selection and calibration; a failure here that
// no step handles ends the pass: false then.
bool DetectionService::judge_pending_job(const Row& pending, const PassSettings& settings) {
  Job job;
  bool pass_goes_on = true;
  try {
    job.row = pending;
    job.client = std::string(cell(job.row, "CLIENT"));
    job.job_id = cell(job.row, "JOB_ID");
    job.unique_key = std::string(cell(job.row, "UNIQUE_KEY"));
    // Whatever the queue held, a job enters the history without a user verdict.
    job.row["USER_IDENTIFIED_CLUSTER"] = Value(-1);
    take_through_steps(job, settings);
  } catch (const std::exception& e) {
    decide(job, DecidingRule::pass_failed, pass_log(kLogError, "Error while doing detection - %s", e.what()));
    pass_goes_on = false;
  } catch (...) {
    decide(job, DecidingRule::pass_failed, pass_log(kLogError, "Unexpected error during detection."));
    pass_goes_on = false;
  }
  if (pass_observer != nullptr) {
    pass_observer->decided(job);
  }
  return pass_goes_on;
}

void DetectionService::take_through_steps(Job& job, const PassSettings& settings) {
  if (accept_if_excluded(job, settings) || accept_if_stream_lacks_history(job) ||
      select_training_set(job, settings)) {
    return;
  }
  if (is_calibration_required(job.row)) {
    calibrate(job.row, job.training, job.full_feature_set());
    job.calibrated = true;
  }
  if (capture_current_observation(job, settings)) {
    return;
  }
  try {
    judge_observation(job, settings);
  } catch (...) {
    // The job stays pending (unless its history write already happened) and
    // is met again at the next pass.
    const std::string words = "\nUnexpected error during anomaly detection.";
    print(words);
    decide(job, DecidingRule::judgement_failed, words.substr(1));
  }
}

bool DetectionService::accept_if_excluded(Job& job, const PassSettings& settings) {
  if (settings.excluded_clients.count(text::to_lower(job.client)) != 0) {
    decide(job, DecidingRule::excluded_client,
           pass_log(kLogProgress, "Ignoring client '%s' for detection as per configuration.", job.client.c_str()));
    accept_as_valid(job.row);
    return true;
  }
  job.policy_type = std::string(cell(job.row, "POLICY_TYPE"));
  if (settings.disabled_policy_types.count(text::to_lower(job.policy_type)) != 0) {
    decide(job, DecidingRule::excluded_policy_type,
           pass_log(kLogProgress, "Ignoring policy type '%s' for detection as per configuration.",
                    job.policy_type.c_str()));
    accept_as_valid(job.row);
    return true;
  }
  job.policy = std::string(cell(job.row, "POLICY"));
  if (const auto found = settings.excluded_client_policies.find(text::to_lower(job.client));
      found != settings.excluded_client_policies.end() && found->second.count(text::to_lower(job.policy)) != 0) {
    decide(job, DecidingRule::excluded_client_policy,
           pass_log(kLogProgress, "Ignoring policy '%s' on client '%s' for detection as per configuration.",
                    job.policy.c_str(), job.client.c_str()));
    accept_as_valid(job.row);
    return true;
  }
  return false;
}

// Only a job of several streams (asset "NA") whose own stream has no history
// yet is accepted unjudged.
bool DetectionService::accept_if_stream_lacks_history(Job& job) {
  const std::string asset = cell(job.row, "ASSET_ID");
  const int stream_number = cell(job.row, "STREAM_NUMBER");
  if (stream_number == 0 || asset != job_key::kNoStorage) {
    return false;
  }
  bool has_stream_history = false;
  try {
    has_stream_history = check_stream_num_data_available(job.row);
  } catch (const std::exception& e) {
    decide(job, DecidingRule::stream_count_failed,
           pass_log(kLogError, "Error while getting job stream count from training set. Jobid - %d. %s ",
                    job.job_id, e.what()));
    accept_as_valid(job.row);
    return true;
  }
  if (!has_stream_history) {
    accept_as_valid(job.row);
    decide(job, DecidingRule::stream_lacks_history,
           pass_log(kLogProgress, "Not enough data for training for client - %s , policy - %s",
                    job.client.c_str(), job.policy.c_str()));
    return true;
  }
  return false;
}

// Chooses the training set; true when the job was accepted for want of one.
bool DetectionService::select_training_set(Job& job, const PassSettings& settings) {
  int& stream_count = job.stream_count;
  int& min_required = job.min_required;
  try {
    min_required = std::min(get_adj_min_observations_required(job.row, settings.min_observations, stream_count),
                            settings.max_observations);
  } catch (const std::exception& e) {
    decide(job, DecidingRule::minimum_failed,
           pass_log(kLogProgress, "Error while getting minimum required observations. %s ", e.what()));
    accept_as_valid(job.row);
    return true;
  }
  if (min_required == -1) {  // no history at all
    decide(job, DecidingRule::workload_lacks_history, "");
    accept_as_valid(job.row);
    return true;
  }
  job.training_limit = stream_count != 0 ? settings.max_observations : kSingleStreamTrainingLimit;
  const int training_limit = job.training_limit;

  pass_log(kLogProgress, "Getting training set for detection client - %s, policy - %s and job - %d.",
           job.client.c_str(), job.policy.c_str(), job.job_id);
  job.decision.training = get_training_set_records(job.row, job.training, min_required, training_limit)
                              ? TrainingKind::full
                              : TrainingKind::fallback;
  if (job.training.size() < static_cast<std::size_t>(min_required)) {
    accept_as_valid(job.row);
    decide(job, DecidingRule::too_little_training,
           pass_log(kLogProgress, "Not enough data for training for client - %s , policy - %s. ",
                    job.client.c_str(), job.policy.c_str()));
    return true;
  }
  if (job.decision.training == TrainingKind::fallback) {
    pass_log(kLogProgress, "Detection using historical data.");
  }
  pass_log(kLogProgress, "Completed getting training data set for detection.");
  return false;
}

// Builds the job's row and the matrix; true when every feature is disabled,
// which leaves the job pending.
bool DetectionService::capture_current_observation(Job& job, const PassSettings& settings) {
  pass_log(kLogProgress, "Preparing input data for detection.");
  job.disabled = settings.disabled_features_for(job.policy_type);
  const std::set<std::string>& disabled = job.disabled;
  job.observed_features = settings.observed_feature_count(job.full_feature_set());
  job.observation = feature_matrix::observation_of(job.row, job.observed_features, disabled);
  if (job.observation.empty()) {
    decide(job, DecidingRule::features_disabled,
           pass_log(kLogProgress, "All features are disabled for policy type = %s. Detection aborted.",
                    job.policy_type.c_str()));
    return true;
  }
  job.matrix.reserve(job.training.size() + 1);
  job.matrix.push_back(job.observation);
  get_data_in_matrix_format(job.training, job.matrix, job.full_feature_set(), disabled);
  pass_log(kLogProgress, "Completed preparing input data for detection.");
  return false;
}
