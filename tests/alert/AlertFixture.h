// Fixture for the alert tests: a detector database in a temporary folder
// with real anomalies in it (tsanomalyctl simulate, then one detection pass
// with tsanomalyctl detect), an INI file with alerts on, a receiver on
// 127.0.0.1, and helpers to run the alert process and read its state.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "storage/DBAccess.h"
#include "tests/alert/AlertReceiver.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/JsonChecks.h"
#include "tests/support/TempDir.h"

class AlertFixture : public ::testing::Test {
 protected:
  using DBAccess = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
  using Rows = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

  std::string db() const { return dir.file("anomaly.db"); }
  std::string ini() const { return dir.file("alerts.ini"); }

  // A backup domain whose every queued job carries an injected anomaly, and
  // one detection pass over it. Answers the ids of the anomalies found.
  std::vector<std::string> detect_anomalies(int workloads) {
    tsanomaly_test::ChildProcess sim({TSANOMALYCTL_PATH, "simulate", db(), "--workloads", std::to_string(workloads),
                                      "--days", "40", "--pending", std::to_string(workloads), "--anomalies", "100"});
    EXPECT_EQ(tsanomaly_test::ChildProcess::run(sim, std::chrono::seconds(120)), 0) << sim.err();
    run_detect();
    return anomaly_ids();
  }

  void run_detect() {
    tsanomaly_test::ChildProcess detect({TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(),
                                         "-database_file_name", "anomaly.db", "-log_path", dir.path()});
    EXPECT_EQ(tsanomaly_test::ChildProcess::run(detect, std::chrono::seconds(120)), 0) << detect.err();
  }

  std::vector<std::string> anomaly_ids() const {
    std::vector<std::string> ids;
    for (auto& row : query("SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA ORDER BY ANOMALY_UNIQUE_ID")) {
      ids.push_back(row["ANOMALY_UNIQUE_ID"].text());
    }
    return ids;
  }

  Rows query(const std::string& sql) const {
    DBAccess conn(db(), SQLITE_OPEN_READWRITE);
    conn.set_busy_timeout(10000);
    Rows rows;
    conn.read_data(sql, rows);
    return rows;
  }
  void execute(const std::string& sql) const {
    DBAccess conn(db(), SQLITE_OPEN_READWRITE);
    conn.set_busy_timeout(10000);
    conn.execute_query(sql);
  }

  // Alerts on, fast cycles and retries, then the sections given.
  void write_ini(const std::string& sections, const std::string& disable = "DISABLE_ALERT_SERVICE=0\n") const {
    tsanomaly_test::TempDir::write(ini(), "[ANOMALY_DETECTION_FUNCTIONALITY]\n" + disable +
                                              "[ALERTS]\nCONSOLE_URL=https://console.test/\nINTERVAL_SECONDS=1\n"
                                              "RETRY_SECONDS=1\n" + sections);
  }
  std::string webhook_section(const std::string& extra = "") const {
    return "[ALERT_WEBHOOK]\nURL=" + receiver.url() + "\n" + extra;
  }

  // One cycle; answers its exit status, its log in log_.
  int alert_once() {
    tsanomaly_test::ChildProcess alert({TSANOMALYCTL_PATH, "alert", db(), "--config", ini(), "--once"});
    const int status = tsanomaly_test::ChildProcess::run(alert, std::chrono::seconds(120));
    log_ = alert.err();
    return status;
  }
  std::vector<std::string> alert_process() const { return {TSANOMALYCTL_PATH, "alert", db(), "--config", ini()}; }

  // The "id" member of each JSON body received, in order.
  std::vector<std::string> received_ids() const {
    std::vector<std::string> ids;
    for (const auto& alert : receiver.received()) {
      auto json = tsanomaly_test::parse(alert.body);
      ids.push_back(tsanomaly_test::string_member(json.get(), "id"));
    }
    return ids;
  }

  tsanomaly_test::TempDir dir;
  tsanomaly_test::AlertReceiver receiver;
  std::string log_;
};
