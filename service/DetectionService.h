// DetectionService: the detector itself. It owns the database session for its
// whole life and, pass after pass, judges every pending backup job against
// the history of like jobs: accepted jobs move into HIST_DATA, anomalies are
// reported into ANOMALY_DATA. Storage failures surface as sqlite_exception.
//
// The operations are spread over one source unit per concern:
//   DetectionService.cpp  construction, the run loop, statements
//   DetectionPass.cpp     do_detection and the steps of one job up to its matrix
//   OutlierJudgement.cpp  clustering, and the rules and report for an outlier
//   JobOutcomes.cpp       the queue, the history writes, users' verdicts
//   TrainingSet.cpp       training-set selection and the feature matrix
//   Calibration.cpp       the per-workload eps
//   ValidationRules.cpp   the look-ups behind the rules that save an outlier
//   AnomalyReport.cpp     cluster statistics and the anomaly report
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "model/ClosestClusterInfo.h"
#include "contract/AnomalyStat.h"
#include "contract/BusyTimeout.h"
#include "service/JobDecision.h"
#include "storage/DBAccess.h"

// The log category of every line the detection service writes.
inline constexpr const char* kDetectionLogCategory = "dbscan_detection";

class DBScan;
class PassObserver;
class TrainingRecords;
struct PassSettings;

class DetectionService {
 public:
  using Row = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
  using Rows = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
  using DBAccess = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
  using Matrix = std::vector<std::vector<double>>;
  using FeatureValues = std::map<std::string, std::vector<double>>;
  using AnomalyStats = ::AnomalyStats;
  using Clock = std::function<time_t()>;
  using Sleep = std::function<void(unsigned seconds)>;

  // The queue has a concurrent writer: a statement waits kBusyTimeoutMs
  // (contract/BusyTimeout.h) for its short transactions instead of failing.

  // Opens (creating when missing) database_location/database_file_name.
  // When it cannot, logs "Could not create database <file name>" and throws
  // a plain std::exception.
  DetectionService(const std::string& database_location, const std::string& database_file_name, double eps,
                   double min_samples, const std::string& config_file);
  // A service on a session the caller opened (for instance an in-memory
  // copy of a workload's data): the same passes, on that database.
  DetectionService(std::unique_ptr<DBAccess> session, double eps, double min_samples, const std::string& config_file);
  ~DetectionService();
  DetectionService(const DetectionService&) = delete;
  DetectionService& operator=(const DetectionService&) = delete;

  // Runs a pass 120 s after start-up and 120 s after each pass ends, until
  // a stop is requested (StopSignal), keeping a service manager that
  // started the process informed (ServiceLoop).
  void start();
  // One pass: fold in user feedback, re-read the configuration, judge every
  // pending job. Only failures to build or read the configuration escape.
  void do_detection();

  // The queue, the history and users' verdicts.
  // The pending queue, in the order the database returns it.
  void get_data_for_detection(Rows& rows);
  void update_processed_status(const std::string& unique_key);
  // Moves the job into HIST_DATA (MODE 1) and out of the queue.
  void update_valid_observation(const Row& record);
  // Moves every job the operators reported as a false positive into the
  // history as user-confirmed, and consumes the verdict.
  void accomodate_user_feedback_received();

  // Training-set selection. The operations that take a training set accept
  // it as Rows, or as the TrainingRecords the pass reads it into; both give
  // the same result.
  bool check_stream_num_data_available(const Row& job);
  // The minimum training size, scaled by the stream count for multi-stream
  // jobs (asset "NA"); -1 when the workload has no history at all.
  int get_adj_min_observations_required(const Row& job, int min_observations, int& stream_count);
  // Fills records (Rows or TrainingRecords) newest first; true when the
  // storage-specific five-feature set held at least min_required records,
  // false when the two-feature fallback across storages was taken instead.
  template <typename Records>
  bool get_training_set_records(const Row& job, Records& records, int min_required, int limit);
  // Appends one feature row per record: NUM_FILES, IMAGE_SIZE and, for the
  // full feature set, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE; lower-case
  // names in disabled are left out.
  void get_data_in_matrix_format(const TrainingRecords& records, Matrix& matrix, int full_feature_set,
                                 const std::set<std::string>& disabled) const;
  void get_data_in_matrix_format(const Rows& records, Matrix& matrix, int full_feature_set,
                                 const std::set<std::string>& disabled) const;

  // Model calibration: one eps per workload in DBSCAN_MODEL_PARAMS.
  void get_dbscan_params(const Row& job, Rows& params);
  bool is_calibration_required(const Row& job);
  // Stores the smallest grid eps at which the training set has no noise.
  void calibrate(const Row& job, const TrainingRecords& training_records, int full_feature_set);
  void calibrate(const Row& job, const Rows& training_records, int full_feature_set);
  void mark_for_re_calibration(const Row& job);

  // Validation look-ups.
  int get_last_backup_for_anomaly_detected_backup(const Row& record, int full_feature_set);
  // 0 when a user-confirmed training row lies within eps (inclusive) of the
  // job (matrix row 0), 1 when the job stays an anomaly.
  int check_anomaly_with_user_identified_cluster(const Row& record, const TrainingRecords& training_rows,
                                                 const Matrix& matrix, double eps, DBScan& model);
  int check_anomaly_with_user_identified_cluster(const Row& record, const Rows& training_rows, const Matrix& matrix,
                                                 double eps, DBScan& model);

  // Cluster statistics for an anomaly.
  void get_observations_in_cluster(const ClosestClusterInfo& closest, const TrainingRecords& training_rows,
                                   const std::vector<int>& labels, int full_feature_set, FeatureValues& values);
  void get_observations_in_cluster(const ClosestClusterInfo& closest, const Rows& training_rows,
                                   const std::vector<int>& labels, int full_feature_set, FeatureValues& values);
  std::pair<double, double> get_min_max_per_feature_statistics(const FeatureValues& values,
                                                               const std::string& feature);
  void get_anomaly_stat(const Row& record, const ClosestClusterInfo& closest, const TrainingRecords& training_rows,
                        const std::vector<int>& labels, int full_feature_set, AnomalyStats& stats);
  void get_anomaly_stat(const Row& record, const ClosestClusterInfo& closest, const Rows& training_rows,
                        const std::vector<int>& labels, int full_feature_set, AnomalyStats& stats);

  // The anomaly report.
  std::string get_json_payload_for_anomaly(const Row& record, const AnomalyStats& stats, int full_feature_set,
                                           const std::string& anomaly_id, const ClosestClusterInfo& closest);
  // The training set and labels are part of the operation's contract but
  // not of the report: any training set type will do.
  template <typename Records>
  void report_anomaly(const Row& record, const ClosestClusterInfo& closest, const Records& training_rows,
                      const std::vector<int>& labels, int full_feature_set, const AnomalyStats& stats);

  // One pending job on its way through a pass (service/PendingJob.h).
  struct Job;
  // While set, the passes' log lines and printed text go to observer instead
  // of the log and standard output, and it sees every decided job (for tools
  // that explain a judgement). Not owned; nullptr removes it.
  void set_observer(PassObserver* observer) { pass_observer = observer; }

  const std::vector<std::string>& get_feature_list() const { return feature_list; }
  DBAccess& database() { return *db; }
  // Where the service reads the wall clock and how it waits; tests pin them.
  void set_clock(Clock clock) { now = std::move(clock); }
  void set_sleep(Sleep sleep) { sleep_for = std::move(sleep); }
  void set_busy_timeout(int milliseconds) { db->set_busy_timeout(milliseconds); }

 private:
  using Statement = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
  using StatementCache = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::StatementCache;

  // A statement for one of the detector's texts: during a pass's jobs
  // borrowed from the pass's statement cache, otherwise compiled for this
  // use alone.
  Statement statement(const char* sql);

  // The eps calibrate would store for this training set, without storing it.
  double calibrated_eps(const TrainingRecords& training_records, int full_feature_set) const;
  // The workload's last backup on any storage, or -1 (opt-in look-up for a
  // job judged on the fallback set, which spans storages).
  int get_last_backup_on_any_storage(const Row& record);

  // The steps of one job, in pass order; each that returns bool returns
  // true when it decided the job's outcome.
  bool judge_pending_job(const Row& pending, const PassSettings& settings);
  void take_through_steps(Job& job, const PassSettings& settings);
  bool accept_if_excluded(Job& job, const PassSettings& settings);
  bool accept_if_stream_lacks_history(Job& job);
  bool select_training_set(Job& job, const PassSettings& settings);
  bool capture_current_observation(Job& job, const PassSettings& settings);
  void judge_observation(Job& job, const PassSettings& settings);
  double detection_eps(Job& job, const PassSettings& settings);
  bool accept_if_a_rule_explains(Job& job, const PassSettings& settings, const Matrix& matrix, double adjusted_eps,
                                 DBScan& dbscan);
  void accept_or_report_by_cluster_range(Job& job, const std::vector<int>& labels, DBScan& dbscan);
  void request_re_calibration(Job& job);
  void log_model_data(const std::vector<int>& labels, const Matrix& matrix,
                      const std::vector<double>& observation) const;
  // Records the step that decided the job, with the message it logged.
  static void decide(Job& job, DecidingRule rule, std::string words);

  // One line of the pass's log (to the observer when one is set); returns
  // the message as the line carries it.
  std::string pass_log(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  // Text for standard output (to the observer when one is set).
  void print(const std::string& text) const;

  void accept_as_valid(const Row& row);
  int read_last_backup_time(Statement& st, const Row& record);
  void read_training_records(Statement& st, Rows& records);
  void read_training_records(Statement& st, TrainingRecords& records);

  void init_feature_list();
  int min_samples_as_int() const;
  int32_t now_as_int() const;

  std::string database_location;
  std::string database_file_name;
  std::string config_file;
  std::unique_ptr<DBAccess> db;
  // Set while a pass judges its jobs.
  StatementCache* pass_statements = nullptr;
  double eps;
  double min_samples;
  std::vector<std::string> feature_list;
  Clock now;
  Sleep sleep_for;
  PassObserver* pass_observer = nullptr;
};
