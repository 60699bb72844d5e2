#include "operator/AnomalyStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

#include "contract/AnomalyPayload.h"
#include "contract/PayloadMembers.h"
#include "operator/AnomalyHandle.h"
#include "operator/DetectorDatabase.h"
#include "schema/ConsoleSql.h"
#include "storage/Statement.h"
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
  record.policy = std::move(fields.policy);
  record.policy_type = std::move(fields.policy_type);
  record.schedule_name = std::move(fields.schedule_name);
  record.storage_name = std::move(fields.storage_name);
  record.summary = std::move(fields.summary);
  record.score = std::move(fields.score);
  record.attributes = std::move(fields.attributes);
}

AnomalyRecord to_record(Row& row) {
  AnomalyRecord record;
  record.id = std::string(row["ANOMALY_UNIQUE_ID"]);
  record.client = std::string(row["CLIENT"]);
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
  Statement st(db_->handle,
               "SELECT BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE FROM HIST_DATA "
               "WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ? AND APP_TYPE = ? AND SCHEDULE_TYPE = ? AND "
               "SCHEDULE_NAME = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ? AND MODE = 1 AND BACKUP_TIME >= ? "
               "ORDER BY BACKUP_TIME");
  int index = 1;
  for (const char* column : {"CLIENT", "POLICY", "POLICY_TYPE", "APP_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME",
                             "DESTINATION_STORAGE_NAME", "ASSET_ID"}) {
    st.bind(index++, std::string(job[column]));
  }
  st.bind(index, days ? static_cast<double>(result.job.backup_time) - 86400.0 * *days : -1e300);
  Rows rows;
  db_->read_data_prepared(st, rows);
  for (Row& row : rows) result.history.push_back(to_point(row));
  return result;
}
