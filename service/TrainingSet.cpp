// Training-set selection: how much history a job needs, which history it is
// judged against (its own storage's five features, or the two-feature
// fallback across storages) and the feature matrix made of it.
#include "schema/DetectorSql.h"
#include "service/DetectionService.h"
#include "service/FeatureMatrix.h"
#include "service/JobKey.h"
#include "service/TrainingRecords.h"
#include "storage/Statement.h"
#include "util/Int32.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using job_key::bind_texts;
using job_key::cell;
using job_key::history_key;
using job_key::plus;

namespace {

constexpr int kStorageSpecificMode = 1;  // MODE of the history rows a storage-specific set takes

}  // namespace

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
  if (asset != job_key::kNoStorage) {
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

template <typename Records>
bool DetectionService::get_training_set_records(const Row& job, Records& records, int min_required, int limit) {
  {
    Statement st = statement(detector_sql::kSelectTrainingSet);
    int next = bind_texts(st, plus(history_key(job), {cell(job, "DESTINATION_STORAGE_NAME"), cell(job, "ASSET_ID")}));
    st.bind(next++, kStorageSpecificMode);
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

template bool DetectionService::get_training_set_records(const Row&, Rows&, int, int);
template bool DetectionService::get_training_set_records(const Row&, TrainingRecords&, int, int);

void DetectionService::read_training_records(Statement& st, Rows& records) { db->read_data_prepared(st, records); }

void DetectionService::read_training_records(Statement& st, TrainingRecords& records) { records.read(*db, st); }

void DetectionService::get_data_in_matrix_format(const TrainingRecords& records, Matrix& matrix,
                                                 int full_feature_set, const std::set<std::string>& disabled) const {
  const int feature_count = feature_set_size(full_feature_set);
  feature_matrix::append_rows(records, feature_matrix::columns_of(feature_count, disabled), matrix);
}

// Callers outside the pass hold a training set as Rows; the pass holds it as
// numbers read once. One implementation serves both.
void DetectionService::get_data_in_matrix_format(const Rows& records, Matrix& matrix, int full_feature_set,
                                                 const std::set<std::string>& disabled) const {
  get_data_in_matrix_format(TrainingRecords::of(records), matrix, full_feature_set, disabled);
}
