// AnomalyStore: the operator tool's read-only view of reported anomalies and
// of the workload history behind them, straight from the detector's
// database. Used by the listing, the feedback command and the HTML report.
#pragma once

#include <array>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "contract/Features.h"
#include "storage/DBAccess.h"

// Names and texts of a record beyond this many bytes are cut (the id and
// the stored payload never are), so no page grows with one hostile name.
inline constexpr std::size_t kMaxNameBytes = 4096;

struct AnomalyRecord {
  std::string id;             // ANOMALY_UNIQUE_ID
  std::string client;
  std::string policy;
  std::string policy_type;
  std::string schedule_name;
  std::string storage_name;
  time_t detection_time = 0;
  std::string summary;        // e.g. "Anomaly image size,Backup files count"
  std::string score;          // distance to the nearest cluster, 2 decimals
  std::string detection_key;  // UNIQUE_KEY of the job in DATA_TO_PROCESS
  std::string payload;        // the JSON document as stored
  // Attribute texts of the payload by member name ("anomalyImageSize", ...);
  // only the attributes that left their range are present.
  std::vector<std::pair<std::string, std::string>> attributes;
};

// One job of a workload, for charts: its features in the stored unit, by
// matrix column (Feature).
struct HistoryPoint {
  time_t backup_time = 0;
  std::array<double, kFeatureCount> features{};
};

// At most this many points of a workload's history reach a chart or an
// answer. Beyond it each point is the mean of the jobs of one equal slice of
// the time range, computed inside SQLite, so neither memory nor a page grows
// with the history.
inline constexpr long long kMaxHistoryPoints = 2000;

// The values of a workload's key columns, in workload_key's order (the six
// shared columns, then storage and asset).
using WorkloadValues = std::array<std::string, 8>;

// A workload's accepted jobs over a time window, oldest first: each job, or
// above kMaxHistoryPoints jobs the means of equal time slices.
struct HistorySample {
  std::vector<HistoryPoint> points;
  long long jobs = 0;     // accepted jobs in the window
  bool averaged = false;  // points are slice means, not jobs
};

struct WorkloadHistory {
  bool job_found = false;  // false once the job has left the queue
  HistoryPoint job;        // the anomalous job itself
  WorkloadValues workload{};          // its workload, when the job was found
  std::vector<HistoryPoint> history;  // its workload's accepted jobs (see HistorySample)
  long long history_jobs = 0;         // jobs the history stands for
  bool averaged = false;
};

class AnomalyStore {
 public:
  struct Filter {
    std::optional<std::string> client;  // exact, case-insensitive
    std::optional<time_t> since;        // detection time at or after
    std::optional<long long> limit;
  };

  // Opens an existing database read-only; throws std::runtime_error with a
  // message for the operator when the file is missing or not a detector
  // database.
  explicit AnomalyStore(const std::string& path);

  // Newest first.
  std::vector<AnomalyRecord> anomalies(const Filter& filter) const;
  // The same records handed to visit one at a time, none kept: for readers
  // of large payloads.
  void visit_anomalies(const Filter& filter, const std::function<void(const AnomalyRecord&)>& visit) const;
  // Every anomaly, newest first, with its id, client, detection time and
  // summary only: the payloads are read one at a time inside SQLite and never
  // held, so a summary of thousands of large payloads stays small.
  std::vector<AnomalyRecord> summaries() const;
  std::optional<AnomalyRecord> find(const std::string& id) const;
  // The id an anomaly handle from a URL names (operator/AnomalyHandle): the
  // handle itself, or the id of the anomaly whose digest it is (none when
  // no anomaly has it). A digest is looked for over every anomaly.
  std::optional<std::string> id_of_handle(const std::string& handle) const;
  // The queued job an anomaly was reported for and the history of its
  // workload (same client, policy, schedule, application, storage, asset);
  // with days, only the history of that many days before the job.
  WorkloadHistory history_of(const AnomalyRecord& anomaly, std::optional<int> days = std::nullopt) const;
  // The workload of a job, by its key: queued, or already in the history.
  std::optional<WorkloadValues> workload_of(const std::string& unique_key) const;
  // The workload's calibrated eps and when it was calibrated, if it has one.
  std::optional<std::pair<double, time_t>> model_of(const WorkloadValues& workload) const;
  // The workload's history rows on every storage.
  long long rows_on_any_storage(const WorkloadValues& workload) const;
  // The backup time of the workload's newest accepted job, if any.
  std::optional<time_t> newest_backup(const WorkloadValues& workload) const;
  // One workload's accepted jobs detected at or after since.
  HistorySample sample_history(const WorkloadValues& workload, time_t since) const;

  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& database() { return *db_; }

 private:
  std::unique_ptr<Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess> db_;
};
