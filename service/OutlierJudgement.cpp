// The judgement of a job's standardised observation: clustering, and for
// an outlier the rules that can still accept it before it is reported.
#include <iostream>

#include "model/DBScanModelImpl.h"
#include "model/StandardizeData.h"
#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "service/JobKey.h"
#include "service/PassSettings.h"
#include "service/PendingJob.h"
#include "util/Int32.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using job_key::cell;

namespace {

constexpr int kNoise = -1;            // the clusterer's label of a row in no cluster
constexpr int kDetectionRunMode = 2;  // the clusterer may stop once the job (row 0) is settled

std::string row_text(const std::vector<double>& values) {
  std::string text;
  for (double value : values) {
    text += std::string(Value(value)) + ",";
  }
  return text;
}

}  // namespace

// Standardise, cluster and decide; every failure in here is the job's own
// and is caught by the caller without ending the pass.
void DetectionService::judge_observation(Job& job, const PassSettings& settings) {
  const int num_features = static_cast<int>(job.matrix[0].size());
  const int num_rows = static_cast<int>(job.matrix.size());
  pass_log(kLogProgress, "Calling StandardizeData.");
  StandardizeData().standardize(job.matrix);
  pass_log(kLogProgress, "Completed StandardizeData activity.");
  // The clusterer's rows are the standardised matrix itself, which is read
  // (never changed) from here on.
  job.observations = Observations{std::move(job.matrix), num_features, num_rows};
  const Observations& observations = job.observations;

  const double adjusted_eps = detection_eps(job, settings);
  DBScan dbscan(adjusted_eps, min_samples_as_int(), kDetectionRunMode);
  pass_log(kLogProgress, "Calling DBScan for detection for job %d", job.job_id);
  std::vector<int>& labels = job.labels;
  dbscan.Run(observations, labels);
  pass_log(kLogProgress, "Done detection.");

  if (static_cast<int>(labels.size()) != num_rows) {
    decide(job, DecidingRule::clustering_failed,
           pass_log(kLogProgress, "Error occurred while doing prediction using dbscan."));
    update_processed_status(job.unique_key);  // processed, though neither accepted nor reported
    return;
  }
  if (labels[0] != kNoise) {
    decide(job, DecidingRule::clustered, pass_log(kLogProgress, "Anomaly not detected."));
    accept_as_valid(job.row);
    return;
  }
  if (settings.log_model_data) {
    log_model_data(labels, observations.data, job.observation);
  }
  if (accept_if_a_rule_explains(job, settings, observations.data, adjusted_eps, dbscan)) {
    return;
  }
  accept_or_report_by_cluster_range(job, labels, dbscan);
}

// The workload's stored eps (or the command line's), scaled by the sensitivity.
double DetectionService::detection_eps(Job& job, const PassSettings& settings) {
  Rows params;
  get_dbscan_params(job.row, params);
  const double model_eps = params.empty() ? eps : static_cast<double>(params[0]["EPS"]);
  job.decision.model_eps = model_eps;
  pass_log(kLogProgress, "Calculated eps = %f ", model_eps);
  pass_log(kLogProgress, "Using sensitivity parameter %d", settings.sensitivity);
  job.decision.adjusted_eps = settings.adjusted_eps(model_eps);
  pass_log(kLogProgress, "Adjusted eps = %f ", job.decision.adjusted_eps);
  return job.decision.adjusted_eps;
}

// The first two rules that can still accept an outlier: a long gap since the
// workload's previous backup, and a match with a user-confirmed observation.
bool DetectionService::accept_if_a_rule_explains(Job& job, const PassSettings& settings, const Matrix& matrix,
                                                 double adjusted_eps, DBScan& dbscan) {
  // Judged on the fallback set (opt-in), the job's previous backup is its
  // workload's latest on any storage: the stand-in storage name of the
  // usual look-up matches no row, and the job would always pass as late.
  const bool across_storages = settings.judge_on_fallback_features && job.decision.training != TrainingKind::full;
  const int last_backup = across_storages
                              ? get_last_backup_on_any_storage(job.row)
                              : get_last_backup_for_anomaly_detected_backup(job.row, job.full_feature_set());
  const int backup_time = cell(job.row, "BACKUP_TIME");
  if (last_backup != -1 &&
      wrap_to_int32(static_cast<int64_t>(backup_time) - last_backup) > settings.day_gap_seconds) {
    // The configured day count, not the measured gap.
    decide(job, DecidingRule::long_gap,
           pass_log(kLogProgress, "Valid record considered since current backup done after %d days.",
                    settings.days_to_ignore));
    accept_as_valid(job.row);
    return true;
  }
  if (check_anomaly_with_user_identified_cluster(job.row, job.training, matrix, adjusted_eps, dbscan) == 0) {
    decide(job, DecidingRule::user_verdict, pass_log(kLogProgress, "Valid record considered based on user feedback."));
    accept_as_valid(job.row);
    return true;
  }
  return false;
}

// The last rule: an outlier whose every feature lies within its nearest
// cluster's range is accepted (and its workload recalibrated); any other is
// reported.
void DetectionService::accept_or_report_by_cluster_range(Job& job, const std::vector<int>& labels, DBScan& dbscan) {
  job.decision.nearest = dbscan.get_closest_cluster_for_observation(0);
  const ClosestClusterInfo& closest = *job.decision.nearest;
  // The pass's own call, whose members are not used: get_anomaly_stat
  // gathers them again. It is kept as the pass has always made it.
  FeatureValues members;
  get_observations_in_cluster(closest, job.training, labels, job.full_feature_set(), members);
  AnomalyStats& stats = job.stats;
  get_anomaly_stat(job.row, closest, job.training, labels, job.full_feature_set(), stats);
  if (stats.empty()) {
    request_re_calibration(job);
    decide(job, DecidingRule::cluster_range,
           pass_log(kLogProgress, "Valid record considered based on cluster range analysis."));
    accept_as_valid(job.row);
    return;
  }
  decide(job, DecidingRule::reported, pass_log(kLogProgress, "Anomaly detected for job %d", job.job_id));
  pass_log(kLogProgress, "Closest cluster for this anomaly %d", closest.cluster_id);
  pass_log(kLogProgress, "Closest cluster distance for this anomaly %f", closest.distance);
  report_anomaly(job.row, closest, job.training, labels, job.full_feature_set(), stats);
  // A no-op where the schema's trigger marked the job with the insert; kept
  // as the detector's own statement for a database made without it.
  update_processed_status(job.unique_key);
}

// A failure only postpones the recalibration: it is logged as a warning and
// the job is judged on.
void DetectionService::request_re_calibration(Job& job) {
  try {
    mark_for_re_calibration(job.row);
    pass_log(kLogProgress, "Re-calibration is required for job %d", job.job_id);
  } catch (const sqlite_exception& e) {
    pass_log(kLogWarning,
             "Could not initiate Re-calibration, re-calibration will occure later as per frequency. %s %s", e.what(),
             e.inner_message());
  } catch (const std::exception& e) {
    pass_log(kLogWarning,
             "Could not initiate Re-calibration, re-calibration will occure later as per frequency. %s", e.what());
  }
}

void DetectionService::log_model_data(const std::vector<int>& labels, const Matrix& matrix,
                                      const std::vector<double>& observation) const {
  pass_log(kLogProgress, "Cluster Assignments");
  for (std::size_t i = 0; i < labels.size(); ++i) {
    pass_log(kLogProgress, "%s", (std::to_string(i) + "," + std::to_string(labels[i])).c_str());
  }
  pass_log(kLogProgress, "Data for anomaly detected.");
  for (const std::vector<double>& values : matrix) {
    pass_log(kLogProgress, "%s", row_text(values).c_str());
  }
  pass_log(kLogProgress, "Current observation %s", row_text(observation).c_str());
}
