// Fixture for end-to-end detection passes: the service fixture's database,
// log and pinned clock, plus a real INI file beside them. Helpers seed the
// five tables with one usual workload and read their final contents back as
// text.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/DebugLog.h"
#include "tests/support/ServiceTestFixture.h"
#include "platform/StopSignal.h"

namespace pass_test {

using Row = DetectionService::Row;
using Rows = DetectionService::Rows;
using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using Strings = std::vector<std::string>;
using TextRow = std::map<std::string, std::string>;
using Cells = std::vector<std::pair<std::string, std::string>>;

// The features of the usual job of the workload: every history row seeded by
// usual_history() carries them, and so does job() unless overridden.
inline const Cells kUsualFeatures = {{"NUM_FILES", "100"},
                                     {"IMAGE_SIZE", "1024"},
                                     {"KB_TRANSFERRED", "2048"},
                                     {"TOTAL_TIME", "600"},
                                     {"DEDUP_RATE", "2.5"}};

// Far from the usual job in all five features.
inline const Cells kFarFeatures = {{"NUM_FILES", "5000"},
                                   {"IMAGE_SIZE", "10240"},
                                   {"KB_TRANSFERRED", "20480"},
                                   {"TOTAL_TIME", "6000"},
                                   {"DEDUP_RATE", "0.5"}};

inline Cells operator+(Cells a, const Cells& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class PassFixture : public ServiceTestFixture {
 protected:
  static constexpr const char* kSetUp1 = "<2> dbscan_detection: Getting data for detection from database.";
  static constexpr const char* kSetUp2 = "<2> dbscan_detection: Completed getting data for detection.";

  void SetUp() override {
    StopSignal::reset();
    write_ini("");
    ServiceTestFixture::SetUp();
  }

  std::string config_path() const override { return ini_path(); }

  std::string db_path() const { return dir.file("anomaly.db"); }
  std::string ini_path() const { return dir.file("tsanomalydetect.ini"); }
  void write_ini(const std::string& text) const { tsanomaly_test::TempDir::write(ini_path(), text); }

  // ---- seeding ----------------------------------------------------------

  // A pending job of the workload (c1, p1, Standard, FULL, daily, app, stu1,
  // vm1) with the usual features; any cell can be overridden. Its
  // USER_IDENTIFIED_CLUSTER is 0, as the queue's writer leaves it.
  static Row job(const std::string& unique_key, const Cells& overrides = {}) {
    Row row;
    const Cells defaults = Cells{{"BACKUP_ID", "img-42"},
                                 {"BACKUP_TIME", "1000000"},
                                 {"CLIENT", "c1"},
                                 {"POLICY", "p1"},
                                 {"POLICY_TYPE", "Standard"},
                                 {"SCHEDULE_TYPE", "FULL"},
                                 {"SCHEDULE_NAME", "daily"},
                                 {"APP_TYPE", "app"},
                                 {"JOB_ID", "42"},
                                 {"PARENT_JOB_ID", "41"},
                                 {"START_TIME", "999000"},
                                 {"END_TIME", "999600"},
                                 {"USER_IDENTIFIED_CLUSTER", "0"},
                                 {"DESTINATION_STORAGE_NAME", "stu1"},
                                 {"STREAM_NUMBER", "0"},
                                 {"ASSET_ID", "vm1"},
                                 {"PROCESSED_STATUS", "0"}} +
                           kUsualFeatures;
    for (const auto& [column, value] : defaults) row[column] = Value(value);
    row["UNIQUE_KEY"] = Value(unique_key);
    for (const auto& [column, value] : overrides) row[column] = Value(value);
    return row;
  }

  // A history row built like a job: PROCESSED_STATUS dropped, MODE added,
  // USER_IDENTIFIED_CLUSTER -1 unless overridden.
  void history(const std::string& unique_key, const Cells& overrides = {}, int mode = 1) {
    Row row = job(unique_key, Cells{{"USER_IDENTIFIED_CLUSTER", "-1"}} + overrides);
    row.erase("PROCESSED_STATUS");
    row["MODE"] = Value(mode);
    insert("HIST_DATA", row);
  }

  // n history rows h1..hn of the workload with the usual features, backup
  // times 1..n (newest last), job ids 1001..1000+n.
  void usual_history(int n, const Cells& overrides = {}, const std::string& prefix = "h") {
    for (int i = 1; i <= n; ++i) {
      history(prefix + std::to_string(i),
              Cells{{"BACKUP_TIME", std::to_string(i)}, {"JOB_ID", std::to_string(1000 + i)}} + overrides);
    }
  }

  // A calibrated eps for the workload, captured now (so not recalibrated).
  void model(const std::string& eps, const Cells& key_overrides = {}) {
    Row row;
    const Cells key = Cells{{"CLIENT", "c1"},        {"POLICY", "p1"},   {"POLICY_TYPE", "Standard"},
                            {"SCHEDULE_TYPE", "FULL"}, {"SCHEDULE_NAME", "daily"}, {"APP_TYPE", "app"},
                            {"DESTINATION_STORAGE_NAME", "stu1"}, {"ASSET_ID", "vm1"}} +
                      key_overrides;
    for (const auto& [column, value] : key) row[column] = Value(value);
    row["EPS"] = Value(eps);
    row["CAPTURE_DATE"] = Value(static_cast<int>(kNow));
    insert("DBSCAN_MODEL_PARAMS", row);
  }

  void anomaly(const std::string& id, const std::string& detection_key) {
    sql("INSERT INTO ANOMALY_DATA VALUES ('" + id + "', '{}', 0, '" + detection_key + "', 'c1', 1600000000)");
  }

  void feedback(const std::string& id, int verdict) {
    sql("INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES ('" + id + "', " +
        std::to_string(verdict) + ")");
  }

  // ---- reading back -----------------------------------------------------

  static TextRow text_of(const Row& row) {
    TextRow text;
    for (const auto& [column, value] : row) text[column] = value.text();
    return text;
  }

  // The queue as "UNIQUE_KEY:PROCESSED_STATUS", by key.
  Strings queue_state() {
    Strings out;
    for (Row& row : query("SELECT UNIQUE_KEY, PROCESSED_STATUS FROM DATA_TO_PROCESS ORDER BY UNIQUE_KEY")) {
      out.push_back(row["UNIQUE_KEY"].text() + ":" + row["PROCESSED_STATUS"].text());
    }
    return out;
  }

  TextRow pending_row(const std::string& unique_key) {
    const Rows rows = query("SELECT * FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = '" + unique_key + "'");
    return rows.empty() ? TextRow{} : text_of(rows[0]);
  }

  TextRow history_row(const std::string& unique_key) {
    const Rows rows = query("SELECT * FROM HIST_DATA WHERE UNIQUE_KEY = '" + unique_key + "'");
    return rows.empty() ? TextRow{} : text_of(rows[0]);
  }

  // What the history row of a queued job must look like: its cells, MODE 1
  // and the given user-identified cluster.
  static TextRow as_history(TextRow queued, const std::string& user_identified_cluster) {
    EXPECT_FALSE(queued.empty()) << "the job was not queued";
    queued.erase("PROCESSED_STATUS");
    queued["MODE"] = "1";
    queued["USER_IDENTIFIED_CLUSTER"] = user_identified_cluster;
    return queued;
  }

  // Model rows as "CLIENT|POLICY|POLICY_TYPE|SCHEDULE_TYPE|SCHEDULE_NAME|
  // APP_TYPE|EPS|CAPTURE_DATE|DESTINATION_STORAGE_NAME|ASSET_ID".
  Strings model_rows() {
    Strings out;
    for (Row& r : query("SELECT * FROM DBSCAN_MODEL_PARAMS ORDER BY CLIENT, DESTINATION_STORAGE_NAME")) {
      out.push_back(r["CLIENT"].text() + "|" + r["POLICY"].text() + "|" + r["POLICY_TYPE"].text() + "|" +
                    r["SCHEDULE_TYPE"].text() + "|" + r["SCHEDULE_NAME"].text() + "|" + r["APP_TYPE"].text() + "|" +
                    r["EPS"].text() + "|" + r["CAPTURE_DATE"].text() + "|" + r["DESTINATION_STORAGE_NAME"].text() +
                    "|" + r["ASSET_ID"].text());
    }
    return out;
  }

  // Anomaly rows without the payload:
  // "ANOMALY_UNIQUE_ID|ANOMALY_STATE|DETECTION_KEY|CLIENT|DETECTION_TIME".
  Strings anomaly_rows() {
    Strings out;
    for (Row& r : query("SELECT * FROM ANOMALY_DATA ORDER BY ANOMALY_UNIQUE_ID")) {
      out.push_back(r["ANOMALY_UNIQUE_ID"].text() + "|" + r["ANOMALY_STATE"].text() + "|" +
                    r["DETECTION_KEY"].text() + "|" + r["CLIENT"].text() + "|" + r["DETECTION_TIME"].text());
    }
    return out;
  }

  // Feedback rows as "ANOMALY_UNIQUE_ID|FEEDBACK".
  Strings feedback_rows() {
    Strings out;
    for (Row& r : query("SELECT * FROM ANOMALY_DATA_FEEDBACK ORDER BY ANOMALY_UNIQUE_ID, FEEDBACK")) {
      out.push_back(r["ANOMALY_UNIQUE_ID"].text() + "|" + r["FEEDBACK"].text());
    }
    return out;
  }

  // The stored payload of an anomaly, parsed; nullptr (and a test failure)
  // when there is no such anomaly or its payload is not JSON. The caller
  // releases it with json_decref.
  json_t* stored_payload(const std::string& anomaly_id) {
    const Rows stored =
        query("SELECT ANOMALY_PAYLOAD FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID = '" + anomaly_id + "'");
    if (stored.size() != 1) {
      ADD_FAILURE() << "no anomaly " << anomaly_id;
      return nullptr;
    }
    json_error_t parse_error;
    json_t* root = json_loads(stored[0].at("ANOMALY_PAYLOAD").text().c_str(), 0, &parse_error);
    if (root == nullptr) ADD_FAILURE() << "payload is not JSON: " << parse_error.text;
    return root;
  }

  // A string member of a JSON object, or "<missing>" / "<not a string>".
  static std::string json_member(json_t* object, const char* key) {
    json_t* value = json_object_get(object, key);
    if (value == nullptr) return "<missing>";
    if (!json_is_string(value)) return "<not a string>";
    return json_string_value(value);
  }

  // Runs one pass and returns the log lines it added.
  Strings pass() {
    const std::size_t before = log_lines().size();
    service->do_detection();
    const Strings all = log_lines();
    return Strings(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
  }

  static std::string info(const std::string& message) { return "<2> dbscan_detection: " + message; }
  static std::string warning(const std::string& message) { return "<4> dbscan_detection: " + message; }
  static std::string error(const std::string& message) { return "<16> dbscan_detection: " + message; }

  static Strings concat(std::initializer_list<Strings> parts) {
    Strings out;
    for (const Strings& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
  }

  // The lines of a job that reaches the clusterer with the full feature set
  // and a stored eps (no calibration), up to "Done detection.".
  static Strings detection_lines(const std::string& eps, int sensitivity, const std::string& adjusted,
                                 int job_id = 42) {
    return {info("Getting training set for detection client - c1, policy - p1 and job - " + std::to_string(job_id) +
                 "."),
            info("Completed getting training data set for detection."),
            info("Preparing input data for detection."),
            info("Completed preparing input data for detection."),
            info("Calling StandardizeData."),
            info("Completed StandardizeData activity."),
            info("Calculated eps = " + eps + " "),
            info("Using sensitivity parameter " + std::to_string(sensitivity)),
            info("Adjusted eps = " + adjusted + " "),
            info("Calling DBScan for detection for job " + std::to_string(job_id)),
            info("Done detection.")};
  }

};

}  // namespace pass_test
