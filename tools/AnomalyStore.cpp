#include "tools/AnomalyStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <stdexcept>
#include <unistd.h>

#include "service/AnomalyPayload.h"
#include "storage/Statement.h"
#include "util/Text.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

DBAccess open_read_only(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error("cannot read database '" + path + "'");
  }
  return DBAccess(path, SQLITE_OPEN_READONLY);
}

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

}  // namespace

AnomalyStore::AnomalyStore(const std::string& path) : db_(open_read_only(path)) {
  Rows tables;
  try {
    db_.read_data("SELECT name FROM sqlite_master WHERE type = 'table' AND name = 'ANOMALY_DATA'", tables);
  } catch (const std::exception&) {
    throw std::runtime_error("'" + path + "' is not an SQLite database");
  }
  if (tables.empty()) {
    throw std::runtime_error("'" + path + "' has no ANOMALY_DATA table; create it with 'tsanomalyctl init'");
  }
}

std::vector<AnomalyRecord> AnomalyStore::anomalies(const Filter& filter) const {
  Statement st(db_.handle,
               "SELECT ANOMALY_UNIQUE_ID, ANOMALY_PAYLOAD, DETECTION_KEY, CLIENT, DETECTION_TIME FROM ANOMALY_DATA "
               "WHERE DETECTION_TIME >= ? AND (? = '' OR lower(CLIENT) = ?) ORDER BY DETECTION_TIME DESC, rowid DESC "
               "LIMIT ?");
  const std::string client = filter.client ? text::to_lower(*filter.client) : "";
  st.bind(1, static_cast<double>(filter.since.value_or(0)));
  st.bind(2, client);
  st.bind(3, client);
  st.bind(4, static_cast<double>(filter.limit.value_or(-1)));
  Rows rows;
  db_.read_data_prepared(st, rows);
  std::vector<AnomalyRecord> records;
  for (Row& row : rows) records.push_back(to_record(row));
  return records;
}

std::optional<AnomalyRecord> AnomalyStore::find(const std::string& id) const {
  Statement st(db_.handle,
               "SELECT ANOMALY_UNIQUE_ID, ANOMALY_PAYLOAD, DETECTION_KEY, CLIENT, DETECTION_TIME FROM ANOMALY_DATA "
               "WHERE ANOMALY_UNIQUE_ID = ?");
  st.bind(1, id);
  Rows rows;
  db_.read_data_prepared(st, rows);
  if (rows.empty()) return std::nullopt;
  return to_record(rows[0]);
}

WorkloadHistory AnomalyStore::history_of(const AnomalyRecord& anomaly) const {
  WorkloadHistory result;
  Rows jobs;
  {
    Statement st(db_.handle, "SELECT * FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?");
    st.bind(1, anomaly.detection_key);
    db_.read_data_prepared(st, jobs);
  }
  if (jobs.empty()) return result;
  Row& job = jobs[0];
  result.job_found = true;
  result.job = to_point(job);
  Statement st(db_.handle,
               "SELECT BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE FROM HIST_DATA "
               "WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ? AND APP_TYPE = ? AND SCHEDULE_TYPE = ? AND "
               "SCHEDULE_NAME = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ? AND MODE = 1 "
               "ORDER BY BACKUP_TIME");
  int index = 1;
  for (const char* column : {"CLIENT", "POLICY", "POLICY_TYPE", "APP_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME",
                             "DESTINATION_STORAGE_NAME", "ASSET_ID"}) {
    st.bind(index++, std::string(job[column]));
  }
  Rows rows;
  db_.read_data_prepared(st, rows);
  for (Row& row : rows) result.history.push_back(to_point(row));
  return result;
}
