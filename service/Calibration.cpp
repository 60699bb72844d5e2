// Model calibration: each workload's eps, the smallest radius on a fixed grid
// at which its whole training set is normal, kept in DBSCAN_MODEL_PARAMS.
#include <stdexcept>

#include "model/DBScanModelImpl.h"
#include "model/EpsCalibrator.h"
#include "model/StandardizeData.h"
#include "platform/DebugLog.h"
#include "schema/DetectorSql.h"
#include "service/DetectionService.h"
#include "service/JobKey.h"
#include "service/TrainingRecords.h"
#include "storage/Statement.h"
#include "util/Int32.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using job_key::bind_texts;
using job_key::model_key;

namespace {

// A stored eps is stale only when its capture date lies this far ahead of
// now (a clock set back); one captured in the past is renewed by a
// re-calibration mark, never by age.
constexpr int32_t kCalibrationMaxAheadSeconds = 1209600;

}  // namespace

void DetectionService::get_dbscan_params(const Row& job, Rows& params) {
  Statement st = statement(detector_sql::kSelectModelParams);
  bind_texts(st, model_key(job));
  db->read_data_prepared(st, params);
}

bool DetectionService::is_calibration_required(const Row& job) {
  Rows params;
  get_dbscan_params(job, params);
  if (params.empty()) {
    return true;
  }
  const int32_t capture = params[0]["CAPTURE_DATE"];
  // Capture minus now, on purpose: see kCalibrationMaxAheadSeconds.
  return wrap_to_int32(static_cast<int64_t>(capture) - now_as_int()) > kCalibrationMaxAheadSeconds;
}

double DetectionService::calibrated_eps(const TrainingRecords& training, int full_feature_set) const {
  Matrix matrix;
  // Every feature of the set, even those the job's policy type disables for
  // detection: the model describes the workload, not one policy's view.
  get_data_in_matrix_format(training, matrix, full_feature_set, {});
  if (matrix.empty()) {
    throw std::invalid_argument("calibration needs at least one training record");
  }
  StandardizeData().standardize(matrix);
  Observations observations;
  observations.num_features = static_cast<int>(matrix[0].size());
  observations.num_observations = static_cast<int>(matrix.size());
  observations.data = std::move(matrix);
  return EpsCalibrator::find_noise_free_eps(observations, min_samples_as_int());
}

void DetectionService::calibrate(const Row& job, const TrainingRecords& training, int full_feature_set) {
  const double calibrated = calibrated_eps(training, full_feature_set);
  const job_key::Texts key = model_key(job);
  pass_log(kLogProgress,
           "Calibrated model parameters for client - %s , policy - %s, policy type - %s, schedule name - %s",
           key[0].c_str(), key[1].c_str(), key[2].c_str(), key[4].c_str());
  pass_log(kLogProgress, "EPS value = %f", calibrated);

  Statement st = statement(detector_sql::kInsertModelParams);
  const int next = bind_texts(st, {key.begin(), key.begin() + job_key::kModelKeyStorage});
  st.bind(next, calibrated);
  st.bind(next + 1, now_as_int());
  bind_texts(st, {key[job_key::kModelKeyStorage], key[job_key::kModelKeyAsset]}, next + 2);
  db->execute_query_prepared(st);
}

// Callers outside the pass hold a training set as Rows; the pass holds it as
// numbers read once. One implementation serves both.
void DetectionService::calibrate(const Row& job, const Rows& training_records, int full_feature_set) {
  calibrate(job, TrainingRecords::of(training_records), full_feature_set);
}

void DetectionService::mark_for_re_calibration(const Row& job) {
  Statement st = statement(detector_sql::kDeleteModelParams);
  bind_texts(st, model_key(job));
  db->execute_query_prepared(st);
}
