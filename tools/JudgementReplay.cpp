#include "tools/JudgementReplay.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <set>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "model/DBScanModelImpl.h"
#include "platform/DebugLog.h"
#include "schema/AnomalySchema.h"
#include "schema/ReplaySql.h"
#include "service/DetectionService.h"
#include "service/FeatureMatrix.h"
#include "service/Features.h"
#include "service/PendingJob.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

constexpr int kBusyTimeoutMs = DetectionService::kDefaultBusyTimeoutMs;  // the service may be writing

// A file: URI that opens path read-only; '%', '?' and '#' would otherwise
// be read as URI syntax. query: "mode=ro", or with "&immutable=1".
std::string read_only_uri(const std::string& path, const std::string& query) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      static const char kHex[] = "0123456789ABCDEF";
      uri += '%';
      uri += kHex[static_cast<unsigned char>(c) >> 4];
      uri += kHex[static_cast<unsigned char>(c) & 0xF];
    } else {
      uri += c;
    }
  }
  return uri + "?" + query;
}

bool attach_source(DBAccess& db, const std::string& uri) {
  try {
    Statement attach(db.handle, replay_sql::kAttachSource);
    attach.bind(1, uri);
    db.execute_query_prepared(attach);
    Rows tables;
    db.read_data(replay_sql::kSourceTables, tables);
    return static_cast<int>(tables.size()) == replay_sql::kDetectorTableCount;
  } catch (const std::exception&) {
    sqlite3_exec(db.handle, "DETACH DATABASE source", nullptr, nullptr, nullptr);
    throw;
  }
}

// Whether the database has no write-ahead log with content: then the file
// alone holds every committed row.
bool no_pending_log(const std::string& path) {
  struct stat log {};
  return stat((path + "-wal").c_str(), &log) != 0 || log.st_size == 0;
}

// An in-memory detector database with the real one attached as "source".
std::unique_ptr<DBAccess> open_copy(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw std::runtime_error("cannot read database '" + path + "'");
  auto db = std::make_unique<DBAccess>(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI);
  db->set_busy_timeout(kBusyTimeoutMs);
  db->execute_query(anomaly_schema::anomaly_db_sql());
  bool detector_tables = false;
  try {
    detector_tables = attach_source(*db, read_only_uri(path, "mode=ro"));
  } catch (const std::exception&) {
    // A database in WAL mode whose folder we may not write (no -shm can be
    // made) opens only as immutable, which is safe while no log has content.
    if (!no_pending_log(path)) throw std::runtime_error("cannot read database '" + path + "'");
    try {
      detector_tables = attach_source(*db, read_only_uri(path, "mode=ro&immutable=1"));
    } catch (const std::exception&) {
      throw std::runtime_error("'" + path + "' is not an SQLite database");
    }
  }
  if (!detector_tables) {
    throw std::runtime_error("'" + path + "' is not a detector database (it lacks the detector's tables)");
  }
  return db;
}

void bind_workload(Statement& st, const Row& job) {
  int index = 1;
  for (const char* column : replay_sql::kWorkloadColumns) {
    const auto found = job.find(column);
    st.bind(index++, found == job.end() ? std::string() : found->second.text());
  }
}

std::string columns_of_table(DBAccess& db, const std::string& table) {
  Rows columns;
  db.read_data("PRAGMA main.table_info(" + table + ")", columns);
  std::string list;
  for (Row& column : columns) list += (list.empty() ? "" : ", ") + std::string(column["name"]);
  return list;
}

// Copies the rows of table that match where (its parameters bound by bind)
// from the source into the copy, by our schema's column names.
template <typename Bind>
void copy_rows(DBAccess& db, const std::string& table, const std::string& where, Bind bind) {
  const std::string columns = columns_of_table(db, table);
  Statement st(db.handle, "INSERT OR IGNORE INTO main." + table + " (" + columns + ") SELECT " + columns +
                              " FROM source." + table + " WHERE " + where);
  bind(st);
  db.execute_query_prepared(st);
}

long long count_of(DBAccess& db, const char* sql, const std::string& key) {
  Statement st(db.handle, sql);
  st.bind(1, key);
  Rows rows;
  db.read_data_prepared(st, rows);
  return rows.empty() ? 0 : std::stoll(rows[0]["N"].text());
}

// The job's workload, its pending verdicts and the job itself (pending),
// copied from the source; counts what the pass would meet first.
void copy_workload(DBAccess& db, Judgement& judgement, long long queue_row) {
  const Row& job = judgement.job;
  const auto by_workload = [&](Statement& st) { bind_workload(st, job); };
  copy_rows(db, "HIST_DATA", replay_sql::kWorkload, by_workload);
  copy_rows(db, "DBSCAN_MODEL_PARAMS", replay_sql::kWorkload, by_workload);
  copy_rows(db, "ANOMALY_DATA", replay_sql::kVerdictsOfWorkload, by_workload);
  copy_rows(db, "ANOMALY_DATA_FEEDBACK", std::string(replay_sql::kVerdictsOfWorkload) + " AND FEEDBACK = 1",
            by_workload);
  copy_rows(db, "DATA_TO_PROCESS", replay_sql::kJobAndJobsOfVerdicts,
            [&](Statement& st) { st.bind(1, judgement.unique_key); });
  Statement pending(db.handle, replay_sql::kMakeJobPending);
  pending.bind(1, judgement.unique_key);
  db.execute_query_prepared(pending);

  Statement earlier(db.handle, replay_sql::kEarlierPendingJobs);
  bind_workload(earlier, job);
  earlier.bind(7, static_cast<double>(queue_row));
  Rows rows;
  db.read_data_prepared(earlier, rows);
  judgement.earlier_pending = rows.empty() ? 0 : std::stoll(rows[0]["N"].text());
  rows.clear();
  db.read_data(replay_sql::kCopiedVerdicts, rows);
  judgement.verdicts_first = rows.empty() ? 0 : std::stoll(rows[0]["N"].text());
  db.execute_query("DETACH DATABASE source");
}

Judgement find_job(DBAccess& db, const std::string& path, const std::string& unique_key, long long& queue_row) {
  Statement st(db.handle, replay_sql::kSourceJob);
  st.bind(1, unique_key);
  Rows rows;
  db.read_data_prepared(st, rows);
  if (rows.empty()) {
    throw std::runtime_error("no job '" + unique_key + "' in DATA_TO_PROCESS of " + path +
                             " (it was accepted into the history, or never queued)");
  }
  Judgement judgement;
  judgement.unique_key = unique_key;
  queue_row = std::stoll(rows[0]["QUEUE_ROW"].text());
  rows[0].erase("QUEUE_ROW");
  judgement.job = rows[0];
  judgement.reported_already = static_cast<int>(judgement.job["PROCESSED_STATUS"]) != 0;
  return judgement;
}

// While it lives, the detector's log messages and standard output are
// collected instead of written.
class PassCapture {
 public:
  PassCapture(Judgement& judgement) : saved_(std::cout.rdbuf(output_.rdbuf())) {
    set_debug_log_sink([&judgement](int level, const char* category, const std::string& message) {
      if (std::string(category) == kDetectionLogCategory) judgement.steps.emplace_back(level, message);
    });
  }
  ~PassCapture() {
    std::cout.rdbuf(saved_);
    set_debug_log_sink({});
  }
  std::string output() const { return output_.str(); }

 private:
  std::ostringstream output_;
  std::streambuf* saved_;
};

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
  if (job.closest) {
    labels = job.labels;
    return *job.closest;
  }
  DBScan model(job.adjusted_eps, min_samples, 1);
  model.Run(job.observations, labels);
  return model.get_closest_cluster_for_observation(0);
}

// Each feature of the job's set against its nearest cluster's range.
void read_features(DetectionService& service, const DetectionService::Job& job, const ClosestClusterInfo& nearest,
                   const std::vector<int>& labels, Judgement& judgement) {
  DetectionService::FeatureValues members;
  service.get_observations_in_cluster(nearest, job.training, labels, job.full_feature_set, members);
  for (const Feature f : kReportOrder) {
    const FeatureInfo& info = feature_info(f);
    if (f >= feature_set_size(job.full_feature_set)) continue;
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

void describe_job(DetectionService& service, const DetectionService::Job& job, const ReplaySettings& settings,
                  Judgement& judgement) {
  judgement.judged = true;
  judgement.min_required = job.min_required;
  judgement.training_limit = job.training_limit;
  judgement.full_feature_set = job.full_feature_set;
  judgement.training_chosen = job.full_feature_set != -1;
  judgement.training_size = job.training.size();
  judgement.calibration_due = job.calibrated;
  if (job.observed_features > 0) {
    judgement.features = feature_names(job.observed_features, job.disabled);
    judgement.training_width = feature_names(feature_set_size(job.full_feature_set), job.disabled).size();
  }
  judgement.observation = job.observation;
  judgement.clustered = !job.labels.empty();
  if (!judgement.clustered) return;
  judgement.model_eps = job.model_eps;
  judgement.adjusted_eps = job.adjusted_eps;
  judgement.label = job.labels[0];
  if (job.labels.size() != job.observations.data.size()) return;
  std::vector<int> labels;
  judgement.nearest = nearest_cluster(job, settings.min_samples, labels);
  read_features(service, job, *judgement.nearest, labels, judgement);
}

// The pass's own words for what decided the job: the last of its messages
// that names an outcome.
std::string deciding_message(const Judgement& judgement) {
  static const char* const kDeciding[] = {
      "Ignoring client", "Ignoring policy", "Not enough data for training", "Error while getting",
      "Anomaly not detected.", "Valid record considered", "Anomaly detected for job",
      "Error occurred while doing prediction", "All features are disabled", "Error while doing detection",
      "Unexpected error during detection", "Could not get data for detection."};
  for (auto step = judgement.steps.rbegin(); step != judgement.steps.rend(); ++step) {
    for (const char* prefix : kDeciding) {
      if (step->second.rfind(prefix, 0) == 0) return step->second;
    }
  }
  return "";
}

void explain_pending(Judgement& judgement) {
  const auto policy_type = judgement.job.find("POLICY_TYPE");
  const std::string type = policy_type == judgement.job.end() ? "" : policy_type->second.text();
  if (judgement.training_chosen && judgement.observation.empty()) {
    judgement.unjudgeable = Judgement::Unjudgeable::features_disabled;
    judgement.cannot_judge = "every feature it could be judged on is disabled for policy type '" + type + "'";
    judgement.hint = "enable one under [DISABLE_FEATURE_PER_POLICY_TYPE] " + type + " in the configuration";
  } else if (judgement.full_feature_set == 0 && judgement.features.size() != judgement.training_width) {
    judgement.unjudgeable = Judgement::Unjudgeable::unequal_features;
    judgement.cannot_judge =
        "its storage has too little history, so it is compared with its workload's two-feature history across "
        "storages, but it offers " + std::to_string(judgement.features.size()) +
        " features: the unequal rows fail at every pass";
    judgement.hint = "set [ANOMALY_MODEL_SETTINGS] JUDGE_ON_FALLBACK_FEATURES=1 to judge it on the two features";
  } else {
    judgement.unjudgeable = Judgement::Unjudgeable::pass_failed;
    judgement.cannot_judge = "the pass failed on it: " + deciding_message(judgement);
  }
  judgement.reason = "cannot be judged: " + judgement.cannot_judge;
}

void describe_outcome(DetectionService& service, Judgement& judgement) {
  DBAccess& db = service.database();
  Rows params;
  service.get_dbscan_params(judgement.job, params);
  if (!params.empty()) judgement.stored_eps = static_cast<double>(params[0]["EPS"]);
  Statement report(db.handle, replay_sql::kReport);
  report.bind(1, judgement.unique_key);
  Rows reports;
  db.read_data_prepared(report, reports);
  Statement queue(db.handle, replay_sql::kQueueState);
  queue.bind(1, judgement.unique_key);
  Rows queued;
  db.read_data_prepared(queue, queued);
  judgement.reason = deciding_message(judgement);
  if (count_of(db, replay_sql::kInHistory, judgement.unique_key) != 0) {
    judgement.outcome = "history";
    if (!judgement.judged) {
      judgement.reason = "a user's verdict on it (false positive) moves it into the history before the pass judges";
    } else if (judgement.reason.empty()) {
      judgement.reason = "accepted without judgement: its workload has no history yet";
    }
  } else if (!reports.empty()) {
    judgement.outcome = "anomaly";
    judgement.payload = reports[0]["ANOMALY_PAYLOAD"].text();
  } else if (!queued.empty() && static_cast<int>(queued[0]["PROCESSED_STATUS"]) != 0) {
    judgement.outcome = "processed";
  } else {
    judgement.outcome = "pending";
    explain_pending(judgement);
  }
}

}  // namespace

Judgement replay_judgement(const std::string& database_path, const std::string& unique_key,
                           const ReplaySettings& settings) {
  std::unique_ptr<DBAccess> db = open_copy(database_path);
  long long queue_row = 0;
  Judgement judgement = find_job(*db, database_path, unique_key, queue_row);
  copy_workload(*db, judgement, queue_row);

  DetectionService service(std::move(db), settings.eps, settings.min_samples, settings.config_file);
  std::optional<DetectionService::Job> seen;
  service.set_job_observer([&](const DetectionService::Job& job) {
    if (job.unique_key == unique_key) seen = job;
  });
  {
    PassCapture capture(judgement);
    service.do_detection();
    judgement.standard_output = capture.output();
  }
  if (seen) describe_job(service, *seen, settings, judgement);
  describe_outcome(service, judgement);
  return judgement;
}

std::vector<std::string> pending_job_keys(const std::string& database_path, long long limit) {
  std::unique_ptr<DBAccess> db = open_copy(database_path);
  Statement st(db->handle, replay_sql::kPendingKeys);
  st.bind(1, static_cast<double>(limit));
  Rows rows;
  db->read_data_prepared(st, rows);
  std::vector<std::string> keys;
  for (Row& row : rows) keys.push_back(row["UNIQUE_KEY"].text());
  return keys;
}
