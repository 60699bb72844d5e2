// Cluster statistics and the report: how an outlier compares with the range
// its nearest cluster spans, feature by feature, and the ANOMALY_DATA row
// written for a job whose features left that range.
#include <algorithm>

#include "schema/DetectorSql.h"
#include "contract/AnomalyPayload.h"
#include "service/DetectionService.h"
#include "contract/Features.h"
#include "service/JobKey.h"
#include "service/TrainingRecords.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using job_key::cell;

namespace {

constexpr int kNewReport = 0;  // ANOMALY_STATE of a report nobody has handled

}  // namespace

void DetectionService::get_observations_in_cluster(const ClosestClusterInfo& closest, const TrainingRecords& training,
                                                   const std::vector<int>& labels, int full_feature_set,
                                                   FeatureValues& values) {
  const int features = feature_set_size(full_feature_set);
  std::vector<std::vector<double>*> columns;
  for (int f = 0; f < features; ++f) {
    std::vector<double>& column = values[kFeatures[f].column];
    column.clear();
    columns.push_back(&column);
  }
  // Label k belongs to training row k - 1; label 0 is the job itself, which
  // matches only when no cluster exists at all and has no training row.
  for (std::size_t k = 1; k < labels.size() && k - 1 < training.size(); ++k) {
    if (labels[k] != closest.cluster_id) {
      continue;
    }
    for (int f = 0; f < features; ++f) {
      columns[static_cast<std::size_t>(f)]->push_back(training.feature(k - 1, f));
    }
  }
}

// Callers outside the pass hold a training set as Rows; the pass holds it as
// numbers read once. One implementation serves both.
void DetectionService::get_observations_in_cluster(const ClosestClusterInfo& closest, const Rows& training_rows,
                                                   const std::vector<int>& labels, int full_feature_set,
                                                   FeatureValues& values) {
  get_observations_in_cluster(closest, TrainingRecords::of(training_rows), labels, full_feature_set, values);
}

std::pair<double, double> DetectionService::get_min_max_per_feature_statistics(const FeatureValues& values,
                                                                                const std::string& feature) {
  const auto found = values.find(feature);
  // No members at all means no range, which leaves every real value outside.
  if (found == values.end() || found->second.empty()) {
    return {-1.0, -1.0};
  }
  const auto [lo, hi] = std::minmax_element(found->second.begin(), found->second.end());
  return {*lo, *hi};
}

void DetectionService::get_anomaly_stat(const Row& record, const ClosestClusterInfo& closest,
                                        const TrainingRecords& training, const std::vector<int>& labels,
                                        int full_feature_set, AnomalyStats& stats) {
  FeatureValues members;
  get_observations_in_cluster(closest, training, labels, full_feature_set, members);
  for (const std::string& feature : feature_list) {
    const double value = cell(record, feature);
    const auto [lo, hi] = get_min_max_per_feature_statistics(members, feature);
    // Both ends inclusive, no margin; a NaN value fails neither test.
    const bool in_range = !(lo > value) && !(value > hi);
    if (in_range) {
      continue;
    }
    if (full_feature_set != 1 && !feature_by_column(feature)->in_fallback_set) {
      continue;
    }
    stats[feature] = anomaly_stat{value, lo, hi};
  }
}

// Callers outside the pass hold a training set as Rows; the pass holds it as
// numbers read once. One implementation serves both.
void DetectionService::get_anomaly_stat(const Row& record, const ClosestClusterInfo& closest,
                                        const Rows& training_rows, const std::vector<int>& labels,
                                        int full_feature_set, AnomalyStats& stats) {
  get_anomaly_stat(record, closest, TrainingRecords::of(training_rows), labels, full_feature_set, stats);
}

std::string DetectionService::get_json_payload_for_anomaly(const Row& record, const AnomalyStats& stats,
                                                           int full_feature_set, const std::string& anomaly_id,
                                                           const ClosestClusterInfo& closest) {
  return anomaly_payload::build(record, stats, full_feature_set, anomaly_id, closest, now());
}

template <typename Records>
void DetectionService::report_anomaly(const Row& record, const ClosestClusterInfo& closest, const Records&,
                                      const std::vector<int>&, int full_feature_set, const AnomalyStats& stats) {
  const int backup_time = cell(record, "BACKUP_TIME");
  const job_key::Texts texts = job_key::texts_of(record, {"JOB_ID", "UNIQUE_KEY", "CLIENT"});
  // Taken before the payload, which reads the clock again for its own text.
  const int32_t detection_time = now_as_int();
  const std::string anomaly_id = anomaly_payload::anomaly_id(texts[0], backup_time);
  const std::string payload = get_json_payload_for_anomaly(record, stats, full_feature_set, anomaly_id, closest);

  Statement st = statement(detector_sql::kInsertAnomaly);
  st.bind(1, anomaly_id);
  st.bind(2, payload);
  st.bind(3, kNewReport);
  st.bind(4, texts[1]);
  st.bind(5, texts[2]);
  st.bind(6, detection_time);
  db->execute_query_prepared(st);
}

template void DetectionService::report_anomaly(const Row&, const ClosestClusterInfo&, const Rows&,
                                               const std::vector<int>&, int, const AnomalyStats&);
template void DetectionService::report_anomaly(const Row&, const ClosestClusterInfo&, const TrainingRecords&,
                                               const std::vector<int>&, int, const AnomalyStats&);
