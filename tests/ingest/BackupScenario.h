// BackupScenario: the end-to-end life of one folder backed up by a real tool
// through its shipped hook into a detector database: ordinary days, a
// detection pass, a ransomware day, an ordinary day after it and a mass
// deletion, each later day followed by a pass. A tool's test supplies only
// how one day's backup is run (back_up); run() does the rest and answers
// what the detector made of each day. Every file lives in a temporary folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/ingest/ChurningFolder.h"
#include "tests/support/TempDir.h"

namespace tsanomaly_test {

// Runs a program to its end (60 s at most) and answers its exit code, with
// its standard error and output where asked.
int run_program(const std::vector<std::string>& argv, std::string* err = nullptr, std::string* out = nullptr);

// "2026-03-01T02:00:00" for an epoch, in UTC.
std::string iso_utc(std::int64_t epoch);

// One row of ANOMALY_DATA: the payload's summary (the features that left
// their range) and the whole payload.
struct ReportedAnomaly {
  std::string summary;
  std::string payload;
};

struct ScenarioOutcome {
  int judged_normal_days = 0;              // ordinary days the detector had history to judge
  std::vector<ReportedAnomaly> false_alarms;  // ordinary days reported
  std::vector<ReportedAnomaly> ransomware;    // what the ransomware day's pass reported
  bool day_after_attack_accepted = false;     // the ordinary day after it went into the history
  std::vector<ReportedAnomaly> deletion;      // what the mass deletion's pass reported
};

class BackupScenario {
 public:
  // The shipped configuration but for the history a workload needs before
  // its jobs are judged: 20 rather than 30, so that a test of few backups
  // (each a second of the tool's time) still judges a dozen ordinary days.
  static constexpr int kMinimumHistory = 20;
  static constexpr int kOrdinaryDays = 33;
  static constexpr std::size_t kFiles = 2000;

  BackupScenario();
  virtual ~BackupScenario() = default;

  ScenarioOutcome run();

  const TempDir& dir() const { return dir_; }
  std::string database() const { return dir_.file("anomaly.db"); }
  const ChurningFolder& folder() const { return folder_; }
  // The path of a shipped hook (packaging/hooks/NAME).
  static std::string hook(const std::string& name);
  // Runs argv (a hook, usually) and fails the test unless it exits 0 and its
  // standard error says one job was queued.
  static void run_hook_queuing_one_job(const std::vector<std::string>& argv);
  // Runs `tsanomalyctl ingest DB --format FORMAT FILE` and answers its one line.
  std::string ingest(const std::string& format, const std::string& file) const;

 protected:
  // Backs up the folder as it is now, as the backup of the day starting at
  // `day_start` (epoch seconds), through the tool's hook.
  virtual void back_up(std::int64_t day_start) = 0;

 private:
  void day(int index, void (ChurningFolder::*change)());
  void detection_pass() const;
  void write_configuration() const;
  std::vector<ReportedAnomaly> anomalies() const;
  long long history_rows() const;

  TempDir dir_;
  ChurningFolder folder_;
  std::int64_t first_day_;
};

}  // namespace tsanomaly_test
