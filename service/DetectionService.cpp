#include "service/DetectionService.h"

#include <jansson.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <iomanip>
#include <sstream>
#include <iostream>
#include <stdexcept>
#include <unistd.h>

#include "config/Configuration.h"
#include "model/DBScanModelImpl.h"
#include "model/EpsCalibrator.h"
#include "model/StandardizeData.h"
#include "platform/DebugLog.h"
#include "platform/LocalTime.h"
#include "schema/DetectorSql.h"
#include "service/PassScheduler.h"
#include "service/StopSignal.h"
#include "service/TrainingRecords.h"
#include "storage/Statement.h"
#include "util/Directory.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::StatementCache;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

namespace {

constexpr const char* kCategory = "dbscan_detection";
constexpr int kOpenFlags = 0x8006;  // read-write | create | no-mutex
// A stored eps is stale only when its capture date lies this far ahead of
// now (a clock set back); one captured in the past is renewed by a
// re-calibration mark, never by age.
constexpr int32_t kCalibrationMaxAheadSeconds = 1209600;
constexpr const char* kNoStorage = "NA";

// The record's cells as text, in the order of the columns given.
std::vector<std::string> texts_of(const DetectionService::Row& row, std::initializer_list<const char*> columns) {
  std::vector<std::string> texts;
  texts.reserve(columns.size());
  for (const char* column : columns) {
    const auto found = row.find(column);
    texts.push_back(found == row.end() ? std::string() : found->second.text());
  }
  return texts;
}

// A missing column reads as an empty cell, as a Row lookup would.
Value cell(const DetectionService::Row& row, const std::string& column) {
  const auto found = row.find(column);
  return found == row.end() ? Value() : found->second;
}

// Binds texts to placeholders first, first + 1, ...; returns the next index.
int bind_texts(Statement& st, const std::vector<std::string>& texts, int first = 1) {
  for (const std::string& text : texts) {
    st.bind(first++, text);
  }
  return first;
}

// The workload key in the order of the history queries (APP_TYPE before
// SCHEDULE_TYPE) ...
std::vector<std::string> history_key(const DetectionService::Row& job) {
  return texts_of(job, {"CLIENT", "POLICY", "POLICY_TYPE", "APP_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME"});
}

// ... and in the order of the model-parameter table (APP_TYPE after
// SCHEDULE_NAME, then storage and asset).
std::vector<std::string> model_key(const DetectionService::Row& job) {
  return texts_of(job, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE",
                        "DESTINATION_STORAGE_NAME", "ASSET_ID"});
}

std::vector<std::string> plus(std::vector<std::string> head, std::initializer_list<std::string> tail) {
  head.insert(head.end(), tail);
  return head;
}

std::string toLower(const std::string& s) {
  std::string lowered(s);
  for (char& c : lowered) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lowered;
}

void capture_feature_if_not_disabled(const std::set<std::string>& disabled, const std::string& feature,
                                     const DetectionService::Row& record, std::vector<double>& row) {
  if (disabled.count(toLower(feature)) == 0) {
    row.push_back(static_cast<double>(cell(record, feature)));
  }
}

// Which of the five features (in matrix column order) a training row
// contributes: NUM_FILES and IMAGE_SIZE, the other three only with the full
// feature set, and none whose lower-case name is disabled.
using FeatureColumns = std::array<bool, TrainingRecords::kFeatureCount>;

FeatureColumns feature_columns(int full_feature_set, const std::set<std::string>& disabled) {
  FeatureColumns columns{};
  for (int f = 0; f < TrainingRecords::kFeatureCount; ++f) {
    const bool in_set = f <= TrainingRecords::kImageSize || full_feature_set == 1;
    columns[f] = in_set && disabled.count(toLower(TrainingRecords::kFeatureNames[f])) == 0;
  }
  return columns;
}

// Appends one feature row per training record.
void append_feature_rows(const TrainingRecords& records, const FeatureColumns& columns,
                         DetectionService::Matrix& matrix) {
  std::size_t width = 0;
  for (const bool taken : columns) width += taken ? 1 : 0;
  matrix.reserve(matrix.size() + records.size());
  for (std::size_t r = 0; r < records.size(); ++r) {
    std::vector<double>& row = matrix.emplace_back();
    row.reserve(width);
    for (int f = 0; f < TrainingRecords::kFeatureCount; ++f) {
      if (columns[f]) row.push_back(records.feature(r, f));
    }
  }
}

// A double truncated toward zero to 32 bits; values outside the int range
// (and NaN) give INT_MIN, as the x86-64 conversion instruction does.
int truncate_to_int(double value) {
  if (!(value >= -2147483648.0 && value < 2147483648.0)) {
    return INT32_MIN;
  }
  return static_cast<int>(value);
}

int32_t wrap_to_int32(int64_t value) { return static_cast<int32_t>(value); }

std::string fixed2(double value) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(2) << value;
  return out.str();
}

constexpr double kKilobytesToMegabytes = 0.0009765625;

std::string size_text(const anomaly_stat& s) {
  return fixed2(s.current_value * kKilobytesToMegabytes) + " MB (Usual: " +
         fixed2(s.usual_min * kKilobytesToMegabytes) + " MB - " + fixed2(s.usual_max * kKilobytesToMegabytes) +
         " MB)";
}

std::string count_text(const anomaly_stat& s) {
  return std::to_string(truncate_to_int(s.current_value)) + " (Usual: " + std::to_string(truncate_to_int(s.usual_min)) +
         " - " + std::to_string(truncate_to_int(s.usual_max)) + ")";
}

std::string ratio_text(const anomaly_stat& s) {
  return std::string(Value(s.current_value)) + " (Usual: " + std::string(Value(s.usual_min)) + " - " +
         std::string(Value(s.usual_max)) + ")";
}

std::string detection_time_text(time_t now) {
  struct tm local {};
  ts_localtime(&now, &local);
  char text[80];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.66Z", &local);
  return text;
}

// Length of the valid UTF-8 sequence starting at text[i], or 0 when the
// bytes there are not one (overlong forms, surrogates and code points past
// U+10FFFF included).
size_t utf8_sequence_length(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return k < text.size() ? static_cast<unsigned char>(text[k]) : 0u; };
  const unsigned lead = byte(i);
  const auto continuation = [&](size_t k, unsigned low = 0x80, unsigned high = 0xBF) {
    return byte(k) >= low && byte(k) <= high;
  };
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continuation(i + 1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) && continuation(i + 3) ? 4 : 0;
  }
  return 0;
}

// JSON text must be UTF-8; a name written in another encoding (Latin-1 from
// an old client, say) keeps its readable part and shows U+FFFD for each byte
// that is not UTF-8, rather than vanishing from the payload.
std::string as_utf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8_sequence_length(text, i);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out;
}

void set_string(json_t* object, const char* key, const std::string& value) {
  json_t* text = json_string(value.c_str());
  if (text == nullptr) {
    text = json_string(as_utf8(value).c_str());
  }
  json_object_set_new(object, key, text);
}

// One anomalous attribute of the payload: its member, its summary name and
// how its text is written.
struct PayloadAttribute {
  const char* feature;
  const char* member;
  const char* summary_name;
  std::string (*text)(const anomaly_stat&);
  bool full_feature_set_only;
};

constexpr PayloadAttribute kPayloadAttributes[] = {
    {"IMAGE_SIZE", "anomalyImageSize", "Anomaly image size", size_text, false},
    {"NUM_FILES", "anomalyBackupFilesCount", "Backup files count", count_text, false},
    {"KB_TRANSFERRED", "anomalyDataTransferred", "Data transferred", size_text, true},
    {"TOTAL_TIME", "anomalyTimeTaken", "Total time", count_text, true},
    {"DEDUP_RATE", "anomalyDeduplicationRatio", "Deduplication ratio", ratio_text, true},
};

}  // namespace

DetectionService::DetectionService(const std::string& database_location, const std::string& database_file_name,
                                   double eps, double min_samples, const std::string& config_file)
    : database_location(database_location),
      database_file_name(database_file_name),
      config_file(config_file),
      eps(eps),
      min_samples(min_samples),
      now([] { return ::time(nullptr); }),
      sleep_for([](unsigned seconds) { ::sleep(seconds); }) {
  try {
    db = std::make_unique<DBAccess>(Path::Combine(database_location, database_file_name), kOpenFlags);
  } catch (const std::exception&) {
    logmsgf(16, kCategory, "Could not create database %s", database_file_name.c_str());
    throw std::exception();
  }
  db->set_busy_timeout(kDefaultBusyTimeoutMs);
  init_feature_list();
}

DetectionService::~DetectionService() = default;

void DetectionService::init_feature_list() {
  feature_list = {"IMAGE_SIZE", "NUM_FILES", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"};
}

int DetectionService::min_samples_as_int() const { return truncate_to_int(min_samples); }

int32_t DetectionService::now_as_int() const { return wrap_to_int32(static_cast<int64_t>(now())); }

Statement DetectionService::statement(const char* sql) {
  if (pass_statements != nullptr) {
    return Statement(*pass_statements, sql);
  }
  return Statement(db->handle, sql);
}

void DetectionService::get_data_for_detection(Rows& rows) { db->read_data(detector_sql::kSelectPendingJobs, rows); }

void DetectionService::update_processed_status(const std::string& unique_key) {
  Statement st = statement(detector_sql::kMarkJobProcessed);
  st.bind(1, unique_key);
  db->execute_query_prepared(st);
}

bool DetectionService::check_stream_num_data_available(const Row& job) {
  Statement st = statement(detector_sql::kCountHistoryOfStream);
  const int next = bind_texts(st, history_key(job));
  st.bind(next, static_cast<int>(cell(job, "STREAM_NUMBER")));
  Rows rows;
  db->read_data_prepared(st, rows);
  return !rows.empty() && static_cast<int>(rows[0]["COUNT(*)"]) != 0;
}

int DetectionService::get_adj_min_observations_required(const Row& job, int min_observations, int& stream_count) {
  const std::string asset = cell(job, "ASSET_ID");
  Rows history;
  {
    Statement st = statement(detector_sql::kCountHistoryAnyStorage);
    bind_texts(st, plus(history_key(job), {asset}));
    db->read_data_prepared(st, history);
  }
  if (history.empty() || static_cast<int>(history[0]["COUNT(*)"]) == 0) {
    return -1;
  }
  if (asset != kNoStorage) {
    stream_count = 0;
    return min_observations;
  }
  Rows streams;
  Statement st = statement(detector_sql::kSelectMaxStreamNumber);
  bind_texts(st, history_key(job));
  db->read_data_prepared(st, streams);
  if (streams.empty()) {
    return -1;
  }
  stream_count = streams[0]["MAX(STREAM_NUMBER)"];
  // The product wraps like 32-bit arithmetic; computed wide so it is defined.
  return stream_count != 0 ? wrap_to_int32(static_cast<int64_t>(stream_count) * min_observations) : min_observations;
}

bool DetectionService::get_training_set_records(const Row& job, Rows& records, int min_required, int limit) {
  return fetch_training_set(job, records, min_required, limit);
}

template <typename Records>
bool DetectionService::fetch_training_set(const Row& job, Records& records, int min_required, int limit) {
  {
    Statement st = statement(detector_sql::kSelectTrainingSet);
    int next = bind_texts(st, plus(history_key(job), {cell(job, "DESTINATION_STORAGE_NAME"), cell(job, "ASSET_ID")}));
    st.bind(next++, 1);  // MODE
    st.bind(next, limit);
    read_training_records(st, records);
  }
  // A negative minimum widens to a huge size and so never passes.
  if (records.size() >= static_cast<std::size_t>(min_required)) {
    return true;
  }
  records.clear();
  Statement st = statement(detector_sql::kSelectFallbackTrainingSet);
  const int next = bind_texts(st, plus(history_key(job), {cell(job, "ASSET_ID")}));
  st.bind(next, limit);
  read_training_records(st, records);
  return false;
}

void DetectionService::read_training_records(Statement& st, Rows& records) { db->read_data_prepared(st, records); }

void DetectionService::read_training_records(Statement& st, TrainingRecords& records) { records.read(*db, st); }

void DetectionService::get_data_in_matrix_format(const Rows& records, Matrix& matrix, int full_feature_set,
                                                 const std::set<std::string>& disabled) {
  append_feature_rows(TrainingRecords::of(records), feature_columns(full_feature_set, disabled), matrix);
}

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
  return wrap_to_int32(static_cast<int64_t>(capture) - now_as_int()) > kCalibrationMaxAheadSeconds;
}

void DetectionService::calibrate(const Row& job, const Rows& training_records, int full_feature_set) {
  calibrate_on(job, TrainingRecords::of(training_records), full_feature_set);
}

void DetectionService::calibrate_on(const Row& job, const TrainingRecords& training, int full_feature_set) {
  Matrix matrix;
  append_feature_rows(training, feature_columns(full_feature_set, {}), matrix);
  if (matrix.empty()) {
    throw std::invalid_argument("calibration needs at least one training record");
  }
  StandardizeData().standardize(matrix);
  Observations observations;
  observations.num_features = static_cast<int>(matrix[0].size());
  observations.num_observations = static_cast<int>(matrix.size());
  observations.data = std::move(matrix);
  const double calibrated = EpsCalibrator::find_noise_free_eps(observations, min_samples_as_int());

  const std::vector<std::string> key = model_key(job);
  logmsgf(2, kCategory, "Calibrated model parameters for client - %s , policy - %s, policy type - %s, schedule name - %s",
          key[0].c_str(), key[1].c_str(), key[2].c_str(), key[4].c_str());
  logmsgf(2, kCategory, "EPS value = %f", calibrated);

  Statement st = statement(detector_sql::kInsertModelParams);
  const int next = bind_texts(st, {key.begin(), key.begin() + 6});
  st.bind(next, calibrated);
  st.bind(next + 1, now_as_int());
  bind_texts(st, {key[6], key[7]}, next + 2);
  db->execute_query_prepared(st);
}

void DetectionService::mark_for_re_calibration(const Row& job) {
  Statement st = statement(detector_sql::kDeleteModelParams);
  bind_texts(st, model_key(job));
  db->execute_query_prepared(st);
}

void DetectionService::update_valid_observation(const Row& record) {
  const auto text = [&](const char* column) { return std::string(cell(record, column)); };
  const auto integer = [&](const char* column) { return static_cast<int>(cell(record, column)); };
  const auto real = [&](const char* column) { return static_cast<double>(cell(record, column)); };
  const std::string unique_key = text("UNIQUE_KEY");
  {
    Statement st = statement(detector_sql::kInsertHistory);
    int i = bind_texts(st, texts_of(record, {"BACKUP_ID"}));
    st.bind(i++, integer("BACKUP_TIME"));
    i = bind_texts(st, texts_of(record, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE"}), i);
    st.bind(i++, integer("NUM_FILES"));
    st.bind(i++, real("IMAGE_SIZE"));
    st.bind(i++, integer("JOB_ID"));
    st.bind(i++, integer("PARENT_JOB_ID"));
    st.bind(i++, real("KB_TRANSFERRED"));
    st.bind(i++, integer("START_TIME"));
    st.bind(i++, integer("END_TIME"));
    st.bind(i++, integer("TOTAL_TIME"));
    st.bind(i++, real("DEDUP_RATE"));
    st.bind(i++, 1);  // MODE: every observation the detector adds is mode 1
    st.bind(i++, integer("USER_IDENTIFIED_CLUSTER"));
    st.bind(i++, text("DESTINATION_STORAGE_NAME"));
    st.bind(i++, integer("STREAM_NUMBER"));
    st.bind(i++, text("ASSET_ID"));
    st.bind(i, unique_key);
    db->execute_query_prepared(st);
  }
  Statement st = statement(detector_sql::kDeletePendingJob);
  st.bind(1, unique_key);
  db->execute_query_prepared(st);
}

int DetectionService::get_last_backup_for_anomaly_detected_backup(const Row& record, int full_feature_set) {
  const std::vector<std::string> names = texts_of(record, {"CLIENT", "POLICY"});
  const std::string storage = full_feature_set == 1 ? std::string(cell(record, "DESTINATION_STORAGE_NAME")) : kNoStorage;
  Statement st = statement(detector_sql::kSelectLastBackupTime);
  bind_texts(st, plus(history_key(record), {storage, cell(record, "ASSET_ID")}));
  Rows rows;
  try {
    db->read_data_prepared(st, rows);
  } catch (...) {
    logmsgf(16, kCategory, "Could not get last known backup time for client - %s, policy - %s.", names[0].c_str(),
            names[1].c_str());
    return -1;
  }
  return rows.empty() ? -1 : static_cast<int>(rows[0]["MAX(BACKUP_TIME)"]);
}

int DetectionService::check_anomaly_with_user_identified_cluster(const Row&, const Rows& training_rows,
                                                                 const Matrix& matrix, double eps_value,
                                                                 DBScan& model) {
  return match_user_identified_cluster(TrainingRecords::of(training_rows), matrix, eps_value, model);
}

int DetectionService::match_user_identified_cluster(const TrainingRecords& training, const Matrix& matrix,
                                                    double eps_value, DBScan& model) {
  for (std::size_t i = 0; i < training.size(); ++i) {
    if (training.user_verdict(i) == -1) {
      continue;
    }
    const double d = model.GetEuclideanDistance(matrix.at(0), matrix.at(i + 1));
    // Inclusive on purpose (unlike the clusterer's strict test); a NaN
    // distance never matches.
    if (d <= eps_value) {
      logmsgf(16, kCategory, "Found a match for this anomaly with user identified cluster.");
      return 0;
    }
  }
  return 1;
}

void DetectionService::get_observations_in_cluster(const ClosestClusterInfo& closest, const Rows& training_rows,
                                                   const std::vector<int>& labels, int full_feature_set,
                                                   FeatureValues& values) {
  collect_observations_in_cluster(closest, TrainingRecords::of(training_rows), labels, full_feature_set, values);
}

void DetectionService::collect_observations_in_cluster(const ClosestClusterInfo& closest,
                                                       const TrainingRecords& training,
                                                       const std::vector<int>& labels, int full_feature_set,
                                                       FeatureValues& values) {
  // NUM_FILES and IMAGE_SIZE, and with the full feature set the other three.
  const int features = full_feature_set == 1 ? TrainingRecords::kFeatureCount : TrainingRecords::kImageSize + 1;
  std::vector<std::vector<double>*> columns;
  for (int f = 0; f < features; ++f) {
    std::vector<double>& column = values[TrainingRecords::kFeatureNames[f]];
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
                                        const Rows& training_rows, const std::vector<int>& labels,
                                        int full_feature_set, AnomalyStats& stats) {
  collect_anomaly_stat(record, closest, TrainingRecords::of(training_rows), labels, full_feature_set, stats);
}

void DetectionService::collect_anomaly_stat(const Row& record, const ClosestClusterInfo& closest,
                                            const TrainingRecords& training, const std::vector<int>& labels,
                                            int full_feature_set, AnomalyStats& stats) {
  FeatureValues members;
  collect_observations_in_cluster(closest, training, labels, full_feature_set, members);
  for (const std::string& feature : feature_list) {
    const double value = cell(record, feature);
    const auto [lo, hi] = get_min_max_per_feature_statistics(members, feature);
    // Both ends inclusive, no margin; a NaN value fails neither test.
    const bool in_range = !(lo > value) && !(value > hi);
    if (in_range) {
      continue;
    }
    if (full_feature_set != 1 && feature != "IMAGE_SIZE" && feature != "NUM_FILES") {
      continue;
    }
    stats[feature] = anomaly_stat{value, lo, hi};
  }
}

std::string DetectionService::get_json_payload_for_anomaly(const Row& record, const AnomalyStats& stats,
                                                           int full_feature_set, const std::string& anomaly_id,
                                                           const ClosestClusterInfo& closest) {
  json_t* root = json_object();
  set_string(root, "DetectionType", "dbscan");
  set_string(root, "DetectionTime", detection_time_text(now()));
  set_string(root, "SizeUnit", "MB");

  const std::vector<std::string> names = texts_of(record, {"CLIENT", "POLICY_TYPE", "SCHEDULE_NAME", "POLICY"});
  json_t* attributes = json_object();
  json_object_set_new(attributes, "jobid", json_integer(static_cast<int>(cell(record, "JOB_ID"))));
  set_string(attributes, "clientName", names[0]);
  set_string(attributes, "policyName", names[3]);
  set_string(attributes, "policyType", names[1]);
  set_string(attributes, "scheduleName", names[2]);

  int count = 0;
  std::string summary;
  for (const PayloadAttribute& attribute : kPayloadAttributes) {
    const auto found = stats.find(attribute.feature);
    if (found == stats.end() || (attribute.full_feature_set_only && full_feature_set != 1)) {
      continue;
    }
    set_string(attributes, attribute.member, attribute.text(found->second));
    summary += std::string(attribute.summary_name) + ",";
    ++count;
  }
  set_string(attributes, "anomalyFeedback", "Report as false positive");
  set_string(attributes, "anomalyId", anomaly_id);
  if (!summary.empty()) {
    summary.pop_back();
  }
  set_string(attributes, "summary", summary);
  set_string(attributes, "count", std::to_string(count));
  set_string(attributes, "score", fixed2(closest.distance));
  set_string(attributes, "storageName", cell(record, "DESTINATION_STORAGE_NAME"));
  json_object_set_new(root, "Attributes", attributes);

  char* dumped = json_dumps(root, 0);
  std::string payload = dumped != nullptr ? dumped : "";
  free(dumped);
  json_decref(root);
  return payload;
}

void DetectionService::report_anomaly(const Row& record, const ClosestClusterInfo& closest, const Rows&,
                                      const std::vector<int>&, int full_feature_set, const AnomalyStats& stats) {
  store_anomaly(record, closest, full_feature_set, stats);
}

void DetectionService::store_anomaly(const Row& record, const ClosestClusterInfo& closest, int full_feature_set,
                                     const AnomalyStats& stats) {
  const int backup_time = cell(record, "BACKUP_TIME");
  const std::vector<std::string> texts = texts_of(record, {"JOB_ID", "UNIQUE_KEY", "CLIENT"});
  const int32_t detection_time = now_as_int();
  const std::string anomaly_id = texts[0] + "_" + std::to_string(backup_time);
  const std::string payload = get_json_payload_for_anomaly(record, stats, full_feature_set, anomaly_id, closest);

  Statement st = statement(detector_sql::kInsertAnomaly);
  st.bind(1, anomaly_id);
  st.bind(2, payload);
  st.bind(3, 0);  // ANOMALY_STATE of a new report
  st.bind(4, texts[1]);
  st.bind(5, texts[2]);
  st.bind(6, detection_time);
  db->execute_query_prepared(st);
}

// ---------------------------------------------------------------------------
// The pass.

namespace {

constexpr int kSecondsPerDay = 86400;
constexpr int kSingleStreamTrainingLimit = 365;

// Settings text read as the service always has: strtol, base 10, then
// truncated to 32 bits.
int setting_as_int(const Configuration& config, const char* section, const char* key) {
  return static_cast<int>(Value(config.get_config(section, key)));
}

std::string row_text(const std::vector<double>& values) {
  std::string text;
  for (double value : values) {
    text += std::string(Value(value)) + ",";
  }
  return text;
}

}  // namespace

struct DetectionService::PassSettings {
  std::map<std::string, std::set<std::string>> excluded_client_policies;
  std::set<std::string> excluded_clients;
  std::set<std::string> disabled_policy_types;
  std::map<std::string, std::set<std::string>> disabled_features;
  int sensitivity = 0;
  int min_observations = 0;
  int days_to_ignore = 0;
  int max_observations = 0;
  bool log_model_data = false;
  int32_t day_gap_seconds = 0;
};

void DetectionService::start() {
  PassScheduler(now, sleep_for, [] { return StopSignal::requested(); }).run([this] { do_detection(); });
}

DetectionService::PassSettings DetectionService::read_settings() const {
  const Configuration config(config_file, 1);
  PassSettings settings;
  config.get_config_dynamic_keys_multiple_values("EXCLUDE_CLIENT_POLICY", settings.excluded_client_policies);
  config.get_config_multiple_values("EXCLUDE_CLIENTS", "CLIENT_NAME", settings.excluded_clients);
  config.get_config_multiple_values("DISABLE_POLICY_TYPE", "POLICY_TYPE", settings.disabled_policy_types);
  config.get_config_dynamic_keys_multiple_values("DISABLE_FEATURE_PER_POLICY_TYPE", settings.disabled_features);
  // The range is asymmetric on purpose: at -99 eps shrinks to a hundredth,
  // never to zero or below.
  settings.sensitivity =
      std::clamp(setting_as_int(config, "ANOMALY_DETECTION_SENSITIVITY", "SENSITIVITY_PERCENTAGE"), -99, 100);
  settings.min_observations =
      std::max(setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "MIN_OBSERVATIONS_FOR_TRAINING"), 30);
  settings.days_to_ignore = setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY");
  if (settings.days_to_ignore <= 0) {
    settings.days_to_ignore = 365;
  }
  settings.max_observations = setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "MAX_OBSERVATIONS_FOR_TRAINING");
  if (settings.max_observations <= 0) {
    settings.max_observations = 3000;
  }
  settings.log_model_data = setting_as_int(config, "META_DATA", "LOG_MODEL_DATA") == 1;
  // 32-bit like the product has always computed it: a huge day count wraps.
  settings.day_gap_seconds = wrap_to_int32(static_cast<int64_t>(settings.days_to_ignore) * kSecondsPerDay);
  return settings;
}

void DetectionService::do_detection() {
  try {
    accomodate_user_feedback_received();
  } catch (...) {
    logmsgf(2, kCategory, "Error occurred during incorporating user feedback into training set.");
  }
  const PassSettings settings = read_settings();

  Rows pending;
  logmsgf(2, kCategory, "Getting data for detection from database.");
  try {
    get_data_for_detection(pending);
  } catch (...) {
    logmsgf(2, kCategory, "Could not get data for detection.");
    return;
  }
  logmsgf(2, kCategory, "Completed getting data for detection.");

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
    try {
      judge_pending_job(job, settings);
    } catch (const std::exception& e) {
      logmsgf(16, kCategory, "Error while doing detection - %s", e.what());
      return;
    } catch (...) {
      logmsgf(16, kCategory, "Unexpected error during detection.");
      return;
    }
  }
}

void DetectionService::accept_as_valid(const Row& row) {
  update_valid_observation(row);
  update_processed_status(cell(row, "UNIQUE_KEY"));
}

// Exclusions, training-set selection and calibration; a failure here that
// no step handles ends the pass (the caller catches it).
void DetectionService::judge_pending_job(const Row& pending, const PassSettings& settings) {
  Row row = pending;
  const std::string client = cell(row, "CLIENT");
  const int job_id = cell(row, "JOB_ID");
  // Whatever the queue held, a job enters the history without a user verdict.
  row["USER_IDENTIFIED_CLUSTER"] = Value(-1);

  if (settings.excluded_clients.count(toLower(client)) != 0) {
    logmsgf(2, kCategory, "Ignoring client '%s' for detection as per configuration.", client.c_str());
    accept_as_valid(row);
    return;
  }
  const std::string policy_type = cell(row, "POLICY_TYPE");
  if (settings.disabled_policy_types.count(toLower(policy_type)) != 0) {
    logmsgf(2, kCategory, "Ignoring policy type '%s' for detection as per configuration.", policy_type.c_str());
    accept_as_valid(row);
    return;
  }
  const std::string policy = cell(row, "POLICY");
  if (const auto found = settings.excluded_client_policies.find(toLower(client));
      found != settings.excluded_client_policies.end() && found->second.count(toLower(policy)) != 0) {
    logmsgf(2, kCategory, "Ignoring policy '%s' on client '%s' for detection as per configuration.", policy.c_str(),
            client.c_str());
    accept_as_valid(row);
    return;
  }

  const std::string asset = cell(row, "ASSET_ID");
  const int stream_number = cell(row, "STREAM_NUMBER");
  if (stream_number != 0 && asset == kNoStorage) {
    bool has_stream_history = false;
    try {
      has_stream_history = check_stream_num_data_available(row);
    } catch (const std::exception& e) {
      logmsgf(16, kCategory, "Error while getting job stream count from training set. Jobid - %d. %s ", job_id,
              e.what());
      accept_as_valid(row);
      return;
    }
    if (!has_stream_history) {
      accept_as_valid(row);
      logmsgf(2, kCategory, "Not enough data for training for client - %s , policy - %s", client.c_str(),
              policy.c_str());
      return;
    }
  }

  int stream_count = 0;
  int min_required = 0;
  try {
    min_required = std::min(get_adj_min_observations_required(row, settings.min_observations, stream_count),
                            settings.max_observations);
  } catch (const std::exception& e) {
    logmsgf(2, kCategory, "Error while getting minimum required observations. %s ", e.what());
    accept_as_valid(row);
    return;
  }
  if (min_required == -1) {
    accept_as_valid(row);
    return;
  }
  const int training_limit = stream_count != 0 ? settings.max_observations : kSingleStreamTrainingLimit;

  logmsgf(2, kCategory, "Getting training set for detection client - %s, policy - %s and job - %d.", client.c_str(),
          policy.c_str(), job_id);
  TrainingRecords training;
  const int full_feature_set = fetch_training_set(row, training, min_required, training_limit) ? 1 : 0;
  if (training.size() < static_cast<std::size_t>(min_required)) {
    accept_as_valid(row);
    logmsgf(2, kCategory, "Not enough data for training for client - %s , policy - %s. ", client.c_str(),
            policy.c_str());
    return;
  }
  if (full_feature_set == 0) {
    logmsgf(2, kCategory, "Detection using historical data.");
  }
  logmsgf(2, kCategory, "Completed getting training data set for detection.");

  if (is_calibration_required(row)) {
    calibrate_on(row, training, full_feature_set);
  }

  logmsgf(2, kCategory, "Preparing input data for detection.");
  const auto disabled_entry = settings.disabled_features.find(toLower(policy_type));
  const std::set<std::string> disabled =
      disabled_entry != settings.disabled_features.end() ? disabled_entry->second : std::set<std::string>{};
  // The job always offers every enabled feature of the five, whichever
  // training set was chosen: with the two-feature fallback the matrix is
  // ragged and standardisation rejects it below.
  std::vector<double> observation;
  for (const char* feature : {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}) {
    capture_feature_if_not_disabled(disabled, feature, row, observation);
  }
  if (observation.empty()) {
    logmsgf(2, kCategory, "All features are disabled for policy type = %s. Detection aborted.", policy_type.c_str());
    return;
  }
  Matrix matrix;
  matrix.reserve(training.size() + 1);
  matrix.push_back(observation);
  append_feature_rows(training, feature_columns(full_feature_set, disabled), matrix);
  logmsgf(2, kCategory, "Completed preparing input data for detection.");

  try {
    judge_observation(row, training, matrix, observation, full_feature_set, settings);
  } catch (...) {
    // The job stays pending (unless its history write already happened) and
    // is met again at the next pass.
    std::cout << "\nUnexpected error during anomaly detection." << std::flush;
  }
}

// Standardise, cluster and decide; every failure in here is the job's own
// and is caught by the caller without ending the pass.
void DetectionService::judge_observation(Row& row, const TrainingRecords& training, Matrix& input,
                                         const std::vector<double>& observation, int full_feature_set,
                                         const PassSettings& settings) {
  const int job_id = cell(row, "JOB_ID");
  const int num_features = static_cast<int>(input[0].size());
  const int num_rows = static_cast<int>(input.size());

  logmsgf(2, kCategory, "Calling StandardizeData.");
  StandardizeData().standardize(input);
  logmsgf(2, kCategory, "Completed StandardizeData activity.");
  // The clusterer's rows are the standardised matrix itself, which is read
  // (never changed) from here on.
  const Observations observations{std::move(input), num_features, num_rows};
  const Matrix& matrix = observations.data;

  Rows params;
  get_dbscan_params(row, params);
  const double model_eps = params.empty() ? eps : static_cast<double>(params[0]["EPS"]);
  logmsgf(2, kCategory, "Calculated eps = %f ", model_eps);
  logmsgf(2, kCategory, "Using sensitivity parameter %d", settings.sensitivity);
  const double adjusted_eps = model_eps + model_eps * (static_cast<double>(settings.sensitivity) / 100.0);
  logmsgf(2, kCategory, "Adjusted eps = %f ", adjusted_eps);

  DBScan dbscan(adjusted_eps, min_samples_as_int(), 2);
  logmsgf(2, kCategory, "Calling DBScan for detection for job %d", job_id);
  std::vector<int> labels;
  dbscan.Run(observations, labels);
  logmsgf(2, kCategory, "Done detection.");

  const std::string unique_key = cell(row, "UNIQUE_KEY");
  if (static_cast<int>(labels.size()) != num_rows) {
    logmsgf(2, kCategory, "Error occurred while doing prediction using dbscan.");
    update_processed_status(unique_key);
    return;
  }
  if (labels[0] != -1) {
    logmsgf(2, kCategory, "Anomaly not detected.");
    accept_as_valid(row);
    return;
  }

  if (settings.log_model_data) {
    log_model_data(labels, matrix, observation);
  }

  const int last_backup = get_last_backup_for_anomaly_detected_backup(row, full_feature_set);
  const int backup_time = cell(row, "BACKUP_TIME");
  if (last_backup != -1 &&
      wrap_to_int32(static_cast<int64_t>(backup_time) - last_backup) > settings.day_gap_seconds) {
    logmsgf(2, kCategory, "Valid record considered since current backup done after %d days.",
            settings.days_to_ignore);
    accept_as_valid(row);
    return;
  }

  if (match_user_identified_cluster(training, matrix, adjusted_eps, dbscan) == 0) {
    logmsgf(2, kCategory, "Valid record considered based on user feedback.");
    accept_as_valid(row);
    return;
  }

  const ClosestClusterInfo closest = dbscan.get_closest_cluster_for_observation(0);
  FeatureValues members;
  collect_observations_in_cluster(closest, training, labels, full_feature_set, members);
  AnomalyStats stats;
  collect_anomaly_stat(row, closest, training, labels, full_feature_set, stats);

  if (stats.empty()) {
    try {
      mark_for_re_calibration(row);
      logmsgf(2, kCategory, "Re-calibration is required for job %d", job_id);
    } catch (const sqlite_exception& e) {
      logmsgf(4, kCategory, "Could not initiate Re-calibration, re-calibration will occure later as per frequency. %s %s",
              e.what(), e.inner_message());
    } catch (const std::exception& e) {
      logmsgf(4, kCategory, "Could not initiate Re-calibration, re-calibration will occure later as per frequency. %s",
              e.what());
    }
    logmsgf(2, kCategory, "Valid record considered based on cluster range analysis.");
    accept_as_valid(row);
    return;
  }

  logmsgf(2, kCategory, "Anomaly detected for job %d", job_id);
  logmsgf(2, kCategory, "Closest cluster for this anomaly %d", closest.cluster_id);
  logmsgf(2, kCategory, "Closest cluster distance for this anomaly %f", closest.distance);
  store_anomaly(row, closest, full_feature_set, stats);
  update_processed_status(unique_key);
}

void DetectionService::log_model_data(const std::vector<int>& labels, const Matrix& matrix,
                                      const std::vector<double>& observation) const {
  logmsgf(2, kCategory, "Cluster Assignments");
  for (std::size_t i = 0; i < labels.size(); ++i) {
    logmsgf(2, kCategory, "%s", (std::to_string(i) + "," + std::to_string(labels[i])).c_str());
  }
  logmsgf(2, kCategory, "Data for anomaly detected.");
  for (const std::vector<double>& values : matrix) {
    logmsgf(2, kCategory, "%s", row_text(values).c_str());
  }
  logmsgf(2, kCategory, "Current observation %s", row_text(observation).c_str());
}

void DetectionService::accomodate_user_feedback_received() {
  Rows verdicts;
  db->read_data(detector_sql::kSelectFeedback, verdicts);
  for (const Row& verdict : verdicts) {
    const std::string anomaly_id = cell(verdict, "ANOMALY_UNIQUE_ID");
    Rows anomalies;
    {
      Statement st = statement(detector_sql::kSelectDetectionKey);
      st.bind(1, anomaly_id);
      db->read_data_prepared(st, anomalies);
    }
    if (anomalies.empty()) {
      continue;  // read again, and skipped again, at every later pass
    }
    Rows jobs;
    {
      Statement st = statement(detector_sql::kSelectJobByKey);
      st.bind(1, std::string(anomalies[0]["DETECTION_KEY"]));
      db->read_data_prepared(st, jobs);
    }
    if (jobs.empty()) {
      continue;
    }
    Row record = jobs[0];
    const std::vector<std::string> names =
        texts_of(record, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_NAME", "APP_TYPE"});
    record["USER_IDENTIFIED_CLUSTER"] = Value(1);
    logmsgf(2, kCategory,
            "Updating user feedback for training for client = %s, policy = %s, policy_type = %s, schedule_name = %s "
            "& app_type = %s",
            names[0].c_str(), names[1].c_str(), names[2].c_str(), names[3].c_str(), names[4].c_str());
    update_valid_observation(record);
    Statement st = statement(detector_sql::kDeleteFeedback);
    st.bind(1, anomaly_id);
    db->execute_query_prepared(st);
  }
}
