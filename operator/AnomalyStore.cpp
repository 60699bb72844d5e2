#include "operator/AnomalyStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <unistd.h>

#include "contract/AnomalyPayload.h"
#include "contract/PayloadMembers.h"
#include "operator/AnomalyHandle.h"
#include "operator/DetectorDatabase.h"
#include "schema/ConsoleSql.h"
#include "contract/WorkloadKey.h"
#include "storage/RecordCursor.h"
#include "storage/Statement.h"
#include "util/TimeUnits.h"
#include "util/Text.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

namespace {

void read_payload(AnomalyRecord& record) {
  anomaly_payload::Fields fields = anomaly_payload::parse(record.payload);
  record.policy = text::capped(fields.policy, kMaxNameBytes);
  record.policy_type = text::capped(fields.policy_type, kMaxNameBytes);
  record.schedule_name = text::capped(fields.schedule_name, kMaxNameBytes);
  record.storage_name = text::capped(fields.storage_name, kMaxNameBytes);
  record.summary = text::capped(fields.summary, kMaxNameBytes);
  record.score = text::capped(fields.score, kMaxNameBytes);
  for (auto& [member, text] : fields.attributes) {
    record.attributes.emplace_back(text::capped(member, kMaxNameBytes), text::capped(text, kMaxNameBytes));
  }
}

AnomalyRecord to_record(Row& row) {
  AnomalyRecord record;
  record.id = std::string(row["ANOMALY_UNIQUE_ID"]);
  record.client = text::capped(std::string(row["CLIENT"]), kMaxNameBytes);
  record.detection_time = static_cast<int>(row["DETECTION_TIME"]);
  record.detection_key = std::string(row["DETECTION_KEY"]);
  record.payload = std::string(row["ANOMALY_PAYLOAD"]);
  read_payload(record);
  return record;
}

HistoryPoint to_point(Row& row) {
  HistoryPoint point;
  point.backup_time = static_cast<int>(row["BACKUP_TIME"]);
  for (const FeatureInfo& info : kFeatures) point.features[info.feature] = row[info.column];
  return point;
}

// The handle's digest of a value, as the text the store reads ids as.
void id_digest(sqlite3_context* context, int, sqlite3_value** arguments) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(arguments[0]));
  if (text == nullptr) {
    sqlite3_result_null(context);
    return;
  }
  const std::string digest = anomaly_handle::digest_of(text);
  sqlite3_result_text(context, digest.c_str(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
}

}  // namespace

AnomalyStore::AnomalyStore(const std::string& path) : db_(detector_database::open_for_reading(path)) {}

std::vector<AnomalyRecord> AnomalyStore::anomalies(const Filter& filter) const {
  std::vector<AnomalyRecord> records;
  visit_anomalies(filter, [&](const AnomalyRecord& record) { records.push_back(record); });
  return records;
}

void AnomalyStore::visit_anomalies(const Filter& filter, const std::function<void(const AnomalyRecord&)>& visit) const {
  Statement st(db_->handle,
               "SELECT ANOMALY_UNIQUE_ID, ANOMALY_PAYLOAD, DETECTION_KEY, CLIENT, DETECTION_TIME FROM ANOMALY_DATA "
               "WHERE DETECTION_TIME >= ? AND (? = '' OR lower(CLIENT) = ?) ORDER BY DETECTION_TIME DESC, rowid DESC "
               "LIMIT ?");
  const std::string client = filter.client ? text::to_lower(*filter.client) : "";
  st.bind(1, static_cast<double>(filter.since.value_or(0)));
  st.bind(2, client);
  st.bind(3, client);
  st.bind(4, static_cast<double>(filter.limit.value_or(-1)));
  db_->visit_records_prepared(st, [&](const auto& cursor) {
    Row row;
    for (int i = 0; i < cursor.cell_count(); ++i) row.emplace(cursor.column_name(i), Value(std::string(cursor.text(i))));
    visit(to_record(row));
  });
}

std::vector<AnomalyRecord> AnomalyStore::summaries() const {
  // A payload that is not JSON, or whose summary is not text, gives an
  // empty summary, as reading it with Jansson would.
  const std::string summary = payload_members::attribute_path(payload_members::kSummary);
  Statement st(db_->handle,
               "SELECT ANOMALY_UNIQUE_ID, CLIENT, DETECTION_TIME, CASE WHEN json_valid(ANOMALY_PAYLOAD) THEN CASE WHEN "
               "json_type(ANOMALY_PAYLOAD, '" + summary + "') = 'text' THEN json_extract(ANOMALY_PAYLOAD, '" + summary +
               "') END END AS SUMMARY FROM ANOMALY_DATA ORDER BY DETECTION_TIME DESC, rowid DESC");
  std::vector<AnomalyRecord> records;
  db_->visit_records_prepared(st, [&](const auto& cursor) {
    AnomalyRecord& record = records.emplace_back();
    record.id = cursor.text(0);
    record.client = cursor.text(1);
    record.detection_time = static_cast<int>(std::strtol(cursor.text(2), nullptr, 10));
    record.summary = cursor.text(3);
  });
  return records;
}

std::optional<AnomalyRecord> AnomalyStore::find(const std::string& id) const {
  Statement st(db_->handle,
               "SELECT ANOMALY_UNIQUE_ID, ANOMALY_PAYLOAD, DETECTION_KEY, CLIENT, DETECTION_TIME FROM ANOMALY_DATA "
               "WHERE ANOMALY_UNIQUE_ID = ?");
  st.bind(1, id);
  Rows rows;
  db_->read_data_prepared(st, rows);
  if (rows.empty()) return std::nullopt;
  return to_record(rows[0]);
}

std::optional<std::string> AnomalyStore::id_of_handle(const std::string& handle) const {
  if (!anomaly_handle::is_digest(handle)) return handle;
  sqlite3_create_function(db_->handle, console_sql::kDigestFunction, 1,
                          SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_DIRECTONLY, nullptr, id_digest, nullptr, nullptr);
  Statement st(db_->handle, console_sql::kIdByDigest);
  st.bind(1, handle);
  std::optional<std::string> id;
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) { id = cursor.text(0); });
  return id;
}

WorkloadHistory AnomalyStore::history_of(const AnomalyRecord& anomaly, std::optional<int> days) const {
  WorkloadHistory result;
  Rows jobs;
  {
    Statement st(db_->handle, "SELECT * FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?");
    st.bind(1, anomaly.detection_key);
    db_->read_data_prepared(st, jobs);
  }
  if (jobs.empty()) return result;
  Row& job = jobs[0];
  result.job_found = true;
  result.job = to_point(job);
  std::size_t index = 0;
  for (const char* column : workload_key::kColumns) result.workload[index++] = std::string(job[column]);
  result.workload[index++] = std::string(job[workload_key::kStorageColumn]);
  result.workload[index] = std::string(job[workload_key::kAssetColumn]);
  const time_t since = days ? result.job.backup_time - static_cast<time_t>(kSecondsPerDay) * *days
                            : std::numeric_limits<time_t>::min();
  HistorySample sample = sample_history(result.workload, since);
  result.history = std::move(sample.points);
  result.history_jobs = sample.jobs;
  result.averaged = sample.averaged;
  return result;
}

namespace {

// Binds the workload's values to ?1..?8 and the window's start to ?9.
void bind_window(Statement& st, const WorkloadValues& workload, time_t since) {
  int index = 1;
  for (const std::string& value : workload) st.bind(index++, value);
  st.bind(index, static_cast<double>(since));
}

HistoryPoint point_of(const RecordCursor& cursor) {
  HistoryPoint point;
  point.backup_time = static_cast<time_t>(std::strtoll(cursor.text(0), nullptr, 10));
  for (const FeatureInfo& info : kFeatures) {
    point.features[info.feature] = std::strtod(cursor.text(1 + static_cast<int>(info.feature)), nullptr);
  }
  return point;
}

}  // namespace

HistorySample AnomalyStore::sample_history(const WorkloadValues& workload, time_t since) const {
  HistorySample sample;
  double first = 0, last = 0;
  {
    Statement st(db_->handle, console_sql::kHistoryExtent);
    bind_window(st, workload, since);
    db_->visit_records_prepared(st, [&](const RecordCursor& cursor) {
      sample.jobs = std::strtoll(cursor.text(0), nullptr, 10);
      first = std::strtod(cursor.text(1), nullptr);
      last = std::strtod(cursor.text(2), nullptr);
    });
  }
  if (sample.jobs == 0) return sample;
  sample.averaged = sample.jobs > kMaxHistoryPoints;
  Statement st(db_->handle, sample.averaged ? console_sql::kHistorySlices : console_sql::kHistoryJobs);
  bind_window(st, workload, since);
  if (sample.averaged) {
    st.bind(10, first);
    st.bind(11, static_cast<int>(kMaxHistoryPoints));
    st.bind(12, last);
  }
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) { sample.points.push_back(point_of(cursor)); });
  return sample;
}

std::optional<WorkloadValues> AnomalyStore::workload_of(const std::string& unique_key) const {
  Statement st(db_->handle, console_sql::kWorkloadOfJob);
  st.bind(1, unique_key);
  std::optional<WorkloadValues> found;
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) {
    found.emplace();
    for (std::size_t i = 0; i < found->size(); ++i) (*found)[i] = cursor.text(static_cast<int>(i));
  });
  return found;
}

std::optional<std::pair<double, time_t>> AnomalyStore::model_of(const WorkloadValues& workload) const {
  Statement st(db_->handle, console_sql::kModelOfWorkload);
  int index = 1;
  for (const std::string& value : workload) st.bind(index++, value);
  std::optional<std::pair<double, time_t>> model;
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) {
    model.emplace(std::strtod(cursor.text(0), nullptr), static_cast<time_t>(std::strtoll(cursor.text(1), nullptr, 10)));
  });
  return model;
}

long long AnomalyStore::rows_on_any_storage(const WorkloadValues& workload) const {
  Statement st(db_->handle, console_sql::kWorkloadRowsAnyStorage);
  for (int i = 0; i < static_cast<int>(workload_key::kColumns.size()); ++i) st.bind(i + 1, workload[i]);
  long long rows = 0;
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) { rows = std::strtoll(cursor.text(0), nullptr, 10); });
  return rows;
}

std::optional<time_t> AnomalyStore::newest_backup(const WorkloadValues& workload) const {
  Statement st(db_->handle, console_sql::kHistoryNewest);
  bind_window(st, workload, std::numeric_limits<time_t>::min());
  time_t newest = 0;
  db_->visit_records_prepared(st, [&](const RecordCursor& cursor) {
    newest = static_cast<time_t>(std::strtoll(cursor.text(0), nullptr, 10));
  });
  return newest != 0 ? std::optional<time_t>(newest) : std::nullopt;
}
