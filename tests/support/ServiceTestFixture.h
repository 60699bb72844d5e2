// Test fixture for the detection service: a real database built from the
// shipped schema in a temporary folder, the debug log opened beside it, the
// service's clock pinned, and helpers to seed the tables and read back the
// log and the SQL the service ran.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/DebugLog.h"
#include "schema/AnomalySchema.h"
#include "service/DetectionService.h"
#include "tests/support/RowWriter.h"
#include "tests/support/TempDir.h"

class ServiceTestFixture : public ::testing::Test {
 protected:
  using Row = DetectionService::Row;
  using Rows = DetectionService::Rows;
  using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

  static constexpr time_t kNow = 1700000000;  // 2023-11-14 22:13:20 UTC
  static constexpr int kTestBusyTimeoutMs = 50;

  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    {
      Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess schema(
          dir.file("anomaly.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
      // The files are thrown away after the test: no need to wait for the
      // disk, here or on the service's connection below.
      schema.execute_query("PRAGMA synchronous = OFF");
      schema.execute_query(anomaly_schema::anomaly_db_sql());
    }
    int status = 0;
    open_debug_log(dir.path(), "tsanomalydetect", "tsanomalydetect", 0644, &status);
    ASSERT_EQ(status, 0);
    service = std::make_unique<DetectionService>(dir.path(), "anomaly.db", 0.5, 3.0, config_path());
    service->set_clock([] { return kNow; });
    // Lock tests hold a lock far longer than this; nobody waits 10 s.
    service->set_busy_timeout(kTestBusyTimeoutMs);
    sql("PRAGMA synchronous = OFF");
  }

  // The configuration file the service reads; none by default.
  virtual std::string config_path() const { return ""; }

  void TearDown() override {
    service.reset();
    close_debug_log();
  }

  // The nearest cluster and one feature's statistics, as the pass hands
  // them to the report.
  static ClosestClusterInfo closest_to(int cluster_id, double distance = 1.5) {
    ClosestClusterInfo closest;
    closest.cluster_id = cluster_id;
    closest.distance = distance;
    return closest;
  }
  static anomaly_stat stat(double current, double usual_min, double usual_max) {
    return anomaly_stat{current, usual_min, usual_max};
  }

  // One training record as the training query returns it: the five feature
  // cells as text, plus the user-identified cluster.
  static Row member(const std::string& num_files, const std::string& image_size,
                    const std::string& kb_transferred = "0", const std::string& total_time = "0",
                    const std::string& dedup_rate = "0") {
    Row row;
    row["NUM_FILES"] = Value(num_files);
    row["IMAGE_SIZE"] = Value(image_size);
    row["KB_TRANSFERRED"] = Value(kb_transferred);
    row["TOTAL_TIME"] = Value(total_time);
    row["DEDUP_RATE"] = Value(dedup_rate);
    row["USER_IDENTIFIED_CLUSTER"] = Value(std::string("-1"));
    return row;
  }

  // Runs plain SQL on the service's own connection.
  void sql(const std::string& text) { service->database().execute_query(text); }

  Rows query(const std::string& text) {
    Rows rows;
    service->database().read_data(text, rows);
    return rows;
  }

  int count(const std::string& table) { return query("SELECT COUNT(*) FROM " + table)[0]["COUNT(*)"]; }

  // A job of the workload (c1, p1, Standard, FULL, daily, app, stu1, asset);
  // any cell can be overridden.
  static Row job(const std::string& unique_key, const std::string& asset = "vm1",
                 const std::vector<std::pair<std::string, std::string>>& overrides = {}) {
    Row row;
    const std::pair<const char*, const char*> defaults[] = {
        {"BACKUP_ID", "img"},        {"BACKUP_TIME", "1000000"},   {"CLIENT", "c1"},
        {"POLICY", "p1"},            {"POLICY_TYPE", "Standard"},  {"SCHEDULE_TYPE", "FULL"},
        {"SCHEDULE_NAME", "daily"},  {"APP_TYPE", "app"},          {"NUM_FILES", "100"},
        {"IMAGE_SIZE", "2048"},      {"JOB_ID", "42"},             {"PARENT_JOB_ID", "41"},
        {"KB_TRANSFERRED", "1024"},  {"START_TIME", "999000"},     {"END_TIME", "999600"},
        {"TOTAL_TIME", "600"},       {"DEDUP_RATE", "2.5"},        {"USER_IDENTIFIED_CLUSTER", "-1"},
        {"DESTINATION_STORAGE_NAME", "stu1"}, {"STREAM_NUMBER", "0"}, {"PROCESSED_STATUS", "0"}};
    for (const auto& [column, value] : defaults) row[column] = Value(std::string(value));
    row["ASSET_ID"] = Value(asset);
    row["UNIQUE_KEY"] = Value(unique_key);
    for (const auto& [column, value] : overrides) row[column] = Value(value);
    return row;
  }

  // Inserts a row into a table by column name.
  void insert(const std::string& table, const Row& row) {
    tsanomaly_test::RowWriter::insert(service->database(), table, row);
  }

  void queue(const Row& row) { insert("DATA_TO_PROCESS", row); }

  // A history row: the job's cells plus MODE (PROCESSED_STATUS dropped).
  void history(Row row, int mode = 1) {
    row.erase("PROCESSED_STATUS");
    row["MODE"] = Value(mode);
    insert("HIST_DATA", row);
  }

  // n history rows of the job's workload, backup times 1, 2, ..., n.
  void history_rows(const Row& base, int n, const std::string& key_prefix, int mode = 1) {
    for (int i = 1; i <= n; ++i) {
      Row row = base;
      row["UNIQUE_KEY"] = Value(key_prefix + std::to_string(i));
      row["BACKUP_TIME"] = Value(i);
      row["NUM_FILES"] = Value(i);
      history(row, mode);
    }
  }

  // The messages of the debug log, without timestamp and pid:
  // "<level> category: message".
  std::vector<std::string> log_lines() const {
    std::vector<std::string> lines;
    std::istringstream in(tsanomaly_test::TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")));
    for (std::string line; std::getline(in, line);) {
      const auto start = line.find("] <");
      lines.push_back(start == std::string::npos ? line : line.substr(start + 2));
    }
    return lines;
  }

  // Records the SQL text of every statement the service's connection runs
  // from now on, as prepared (placeholders unexpanded).
  void trace_sql() {
    traced.clear();
    sqlite3_trace_v2(service->database().handle, SQLITE_TRACE_STMT, &ServiceTestFixture::on_statement, &traced);
  }

  // SQLite compiles (and traces) a text only up to the end of its first
  // statement: whatever follows the ';' is not part of what it reports.
  static std::string as_compiled(const std::string& text) { return text.substr(0, text.find(';') + 1); }

  // Trigger programs are traced too, as "-- TRIGGER name": they are the
  // schema's work, not statements the service runs.
  static int on_statement(unsigned, void* context, void*, void* text) {
    const char* sql = static_cast<const char*>(text);
    if (std::strncmp(sql, "--", 2) != 0) static_cast<std::vector<std::string>*>(context)->push_back(sql);
    return 0;
  }

  tsanomaly_test::TempDir dir;
  std::unique_ptr<DetectionService> service;
  std::vector<std::string> traced;
};
