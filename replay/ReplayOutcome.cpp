#include "replay/ReplayOutcome.h"

#include <set>
#include <string>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "schema/ReplaySql.h"
#include "service/FeatureMatrix.h"
#include "contract/Features.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace replay_outcome {
namespace {

// The rows sql (one ? for the job's key) gives in the copy.
Rows rows_for_job(DBAccess& db, const char* sql, const std::string& unique_key) {
  Statement st(db.handle, sql);
  st.bind(1, unique_key);
  Rows rows;
  db.read_data_prepared(st, rows);
  return rows;
}

// The names of the features a row offers, in matrix order.
std::vector<std::string> feature_names(int feature_count, const std::set<std::string>& disabled) {
  const feature_matrix::Columns columns = feature_matrix::columns_of(feature_count, disabled);
  std::vector<std::string> names;
  for (const FeatureInfo& info : kFeatures) {
    if (columns[info.feature]) names.emplace_back(info.column);
  }
  return names;
}

// The cluster the job is nearest to, with labels for every row. An outlier
// that reached the range rule keeps the pass's own answer; otherwise the
// clusterer runs once more in full on the same rows and eps.
ClosestClusterInfo nearest_cluster(const DetectionService::Job& job, int min_samples, std::vector<int>& labels) {
  if (job.decision.nearest) {
    labels = job.labels;
    return *job.decision.nearest;
  }
  DBScan model(job.decision.adjusted_eps, min_samples, 1);
  model.Run(job.observations, labels);
  return model.get_closest_cluster_for_observation(0);
}

// Each feature of the job's set against its nearest cluster's range.
void read_features(DetectionService& service, const DetectionService::Job& job, const ClosestClusterInfo& nearest,
                   const std::vector<int>& labels, Judgement& judgement) {
  DetectionService::FeatureValues members;
  service.get_observations_in_cluster(nearest, job.training, labels, job.full_feature_set(), members);
  for (const Feature f : kReportOrder) {
    const FeatureInfo& info = feature_info(f);
    if (f >= feature_set_size(job.full_feature_set())) continue;
    FeatureReading reading;
    reading.column = info.column;
    const auto cell = job.row.find(info.column);
    reading.value = cell == job.row.end() ? 0.0 : static_cast<double>(cell->second);
    const auto found = members.find(info.column);
    if (found != members.end() && !found->second.empty()) {
      reading.usual = service.get_min_max_per_feature_statistics(members, info.column);
      reading.in_range = !(reading.usual->first > reading.value) && !(reading.value > reading.usual->second);
    } else {
      reading.in_range = false;
    }
    judgement.readings.push_back(reading);
  }
}

}  // namespace

void describe_job(DetectionService& service, const DetectionService::Job& job, int min_samples,
                  Judgement& judgement) {
  judgement.judged = true;
  judgement.min_required = job.min_required;
  judgement.training_limit = job.training_limit;
  judgement.training = job.decision.training;
  judgement.rule = job.decision.rule;
  judgement.deciding_words = job.decision.words;
  judgement.training_size = job.training.size();
  judgement.calibration_due = job.calibrated;
  if (job.observed_features > 0) {
    judgement.features = feature_names(job.observed_features, job.disabled);
    judgement.training_width = feature_names(feature_set_size(job.full_feature_set()), job.disabled).size();
  }
  judgement.observation = job.observation;
  judgement.clustered = !job.labels.empty();
  if (!judgement.clustered) return;
  judgement.model_eps = job.decision.model_eps;
  judgement.adjusted_eps = job.decision.adjusted_eps;
  judgement.label = job.labels[0];
  if (job.labels.size() != job.observations.data.size()) return;
  std::vector<int> labels;
  judgement.nearest = nearest_cluster(job, min_samples, labels);
  read_features(service, job, *judgement.nearest, labels, judgement);
}

namespace {

void explain_pending(Judgement& judgement) {
  const auto policy_type = judgement.job.find("POLICY_TYPE");
  const std::string type = policy_type == judgement.job.end() ? "" : policy_type->second.text();
  if (judgement.rule == DecidingRule::features_disabled) {
    judgement.unjudgeable = Judgement::Unjudgeable::features_disabled;
    judgement.cannot_judge = "every feature it could be judged on is disabled for policy type '" + type + "'";
    judgement.hint = "enable one under [DISABLE_FEATURE_PER_POLICY_TYPE] " + type + " in the configuration";
  } else if (judgement.training == TrainingKind::fallback && judgement.features.size() != judgement.training_width) {
    judgement.unjudgeable = Judgement::Unjudgeable::unequal_features;
    judgement.cannot_judge =
        "its storage has too little history, so it is compared with its workload's two-feature history across "
        "storages, but it offers " + std::to_string(judgement.features.size()) +
        " features: the unequal rows fail at every pass";
    judgement.hint = "set [ANOMALY_MODEL_SETTINGS] JUDGE_ON_FALLBACK_FEATURES=1 to judge it on the two features";
  } else {
    judgement.unjudgeable = Judgement::Unjudgeable::pass_failed;
    judgement.cannot_judge = "the pass failed on it: " + judgement.deciding_words;
  }
  judgement.reason = "cannot be judged: " + judgement.cannot_judge;
}

}  // namespace

void describe_outcome(DetectionService& service, Judgement& judgement) {
  DBAccess& db = service.database();
  Rows params;
  service.get_dbscan_params(judgement.job, params);
  if (!params.empty()) judgement.stored_eps = static_cast<double>(params[0]["EPS"]);
  Rows reports = rows_for_job(db, replay_sql::kReport, judgement.unique_key);
  Rows queued = rows_for_job(db, replay_sql::kQueueState, judgement.unique_key);
  Rows in_history = rows_for_job(db, replay_sql::kInHistory, judgement.unique_key);
  // A job the pass never reached (it ended first) has no deciding step: the
  // pass's last message says what ended it.
  if (judgement.rule == DecidingRule::none && !judgement.steps.empty()) {
    judgement.deciding_words = judgement.steps.back().second;
  }
  judgement.reason = judgement.deciding_words;
  if (!in_history.empty() && static_cast<int>(in_history[0]["N"]) != 0) {
    judgement.outcome = ReplayedOutcome::history;
    if (!judgement.judged) {
      judgement.reason = "a user's verdict on it (false positive) moves it into the history before the pass judges";
    } else if (judgement.reason.empty()) {
      judgement.reason = "accepted without judgement: its workload has no history yet";
    }
  } else if (!reports.empty()) {
    judgement.outcome = ReplayedOutcome::anomaly;
    judgement.payload = reports[0]["ANOMALY_PAYLOAD"].text();
  } else if (!queued.empty() && static_cast<int>(queued[0]["PROCESSED_STATUS"]) != 0) {
    judgement.outcome = ReplayedOutcome::processed;
  } else {
    judgement.outcome = ReplayedOutcome::pending;
    explain_pending(judgement);
  }
}

}  // namespace replay_outcome
