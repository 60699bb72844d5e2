#include "tests/ingest/BackupScenario.h"

#include <gtest/gtest.h>

#include <ctime>

#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"

namespace tsanomaly_test {

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

Rows query(const std::string& database, const std::string& sql) {
  DBAccess db(database, SQLITE_OPEN_READONLY);
  Rows rows;
  db.read_data(sql, rows);
  return rows;
}

}  // namespace

int run_program(const std::vector<std::string>& argv, std::string* err, std::string* out) {
  ChildProcess child(argv);
  const int status = ChildProcess::run(child, std::chrono::seconds(60));
  if (err != nullptr) *err = child.err();
  if (out != nullptr) *out = child.out();
  return status;
}

std::string iso_utc(std::int64_t epoch) {
  const std::time_t time = static_cast<std::time_t>(epoch);
  std::tm broken{};
  gmtime_r(&time, &broken);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &broken);
  return text;
}

BackupScenario::BackupScenario()
    : folder_(dir_.file("data"), kFiles, 20261125),
      // Days that ended before today, so no time lies in the future.
      first_day_((static_cast<std::int64_t>(std::time(nullptr)) / 86400 - kOrdinaryDays - 10) * 86400 + 2 * 3600) {
  EXPECT_EQ(run_program({TSANOMALYCTL_PATH, "init", database()}), 0);
  write_configuration();
}

void BackupScenario::write_configuration() const {
  std::string ini = TempDir::read(source_dir() + "/etc/tsanomalydetect.ini");
  const std::string setting = "MIN_OBSERVATIONS_FOR_TRAINING=";
  const std::size_t at = ini.find("\n" + setting);
  ASSERT_NE(at, std::string::npos);
  ini.replace(at + 1, ini.find('\n', at + 1) - at - 1, setting + std::to_string(kMinimumHistory));
  TempDir::write(dir_.file("detector.ini"), ini);
}

std::string BackupScenario::hook(const std::string& name) { return source_dir() + "/packaging/hooks/" + name; }

void BackupScenario::run_hook_queuing_one_job(const std::vector<std::string>& argv) {
  std::string err;
  ASSERT_EQ(run_program(argv, &err), 0) << err;
  EXPECT_NE(err.find("1 jobs queued, 0 already queued, 0 skipped"), std::string::npos) << err;
}

std::string BackupScenario::ingest(const std::string& format, const std::string& file) const {
  std::string err, out;
  run_program({TSANOMALYCTL_PATH, "ingest", database(), "--format", format, file}, &err, &out);
  return out + err;
}

void BackupScenario::day(int index, void (ChurningFolder::*change)()) {
  (folder_.*change)();
  back_up(first_day_ + static_cast<std::int64_t>(index) * 86400);
}

void BackupScenario::detection_pass() const {
  std::string err;
  EXPECT_EQ(run_program({TSANOMALYCTL_PATH, "detect", "-database_location", dir_.path(), "-database_file_name",
                         "anomaly.db", "-log_path", dir_.path(), "-config_file",
                         dir_.file("detector.ini")},
                        &err),
            0)
      << err;
}

std::vector<ReportedAnomaly> BackupScenario::anomalies() const {
  std::vector<ReportedAnomaly> found;
  for (const auto& row : query(database(), "SELECT json_extract(ANOMALY_PAYLOAD, '$.Attributes.summary') AS S, "
                                           "ANOMALY_PAYLOAD AS P FROM ANOMALY_DATA ORDER BY rowid")) {
    found.push_back({row.at("S").text(), row.at("P").text()});
  }
  return found;
}

long long BackupScenario::history_rows() const {
  return static_cast<long long>(static_cast<double>(query(database(), "SELECT COUNT(*) AS N FROM HIST_DATA")[0].at("N")));
}

ScenarioOutcome BackupScenario::run() {
  ScenarioOutcome outcome;
  back_up(first_day_);
  int index = 1;
  for (; index < kOrdinaryDays; ++index) day(index, &ChurningFolder::normal_day);
  detection_pass();
  outcome.judged_normal_days = kOrdinaryDays - kMinimumHistory;
  outcome.false_alarms = anomalies();

  day(index++, &ChurningFolder::ransomware_day);
  detection_pass();
  std::vector<ReportedAnomaly> reported = anomalies();
  outcome.ransomware.assign(reported.begin() + static_cast<long>(outcome.false_alarms.size()), reported.end());

  const long long history_before = history_rows();
  day(index++, &ChurningFolder::normal_day);
  detection_pass();
  outcome.day_after_attack_accepted = history_rows() == history_before + 1 && anomalies().size() == reported.size();
  ++outcome.judged_normal_days;

  const std::size_t before_deletion = anomalies().size();
  day(index++, &ChurningFolder::mass_deletion_day);
  detection_pass();
  const std::vector<ReportedAnomaly> after_deletion = anomalies();
  outcome.deletion.assign(after_deletion.begin() + static_cast<long>(before_deletion), after_deletion.end());
  return outcome;
}

}  // namespace tsanomaly_test
