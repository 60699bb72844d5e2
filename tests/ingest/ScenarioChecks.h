// ScenarioChecks: what every backup tool's end-to-end scenario must show,
// printed for the record and then asserted: at most one false alarm among the
// judged ordinary days, the ransomware day reported for the data it wrote and
// its lost deduplication, the ordinary day after it accepted, and the mass
// deletion reported for its files.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

#include "tests/ingest/BackupScenario.h"

namespace tsanomaly_test {

inline std::string summaries(const std::vector<ReportedAnomaly>& anomalies) {
  std::string text;
  for (const ReportedAnomaly& anomaly : anomalies) text += anomaly.summary + " | " + anomaly.payload + "\n";
  return text;
}

inline void expect_attacks_reported_and_ordinary_days_accepted(const ScenarioOutcome& outcome) {
  std::cout << "false alarms on " << outcome.judged_normal_days << " judged ordinary days:\n"
            << summaries(outcome.false_alarms) << "ransomware day:\n"
            << summaries(outcome.ransomware) << "mass deletion day:\n"
            << summaries(outcome.deletion);
  EXPECT_LE(outcome.false_alarms.size(), 1u) << summaries(outcome.false_alarms);
  ASSERT_EQ(outcome.ransomware.size(), 1u);
  EXPECT_NE(outcome.ransomware[0].summary.find("Data transferred"), std::string::npos) << outcome.ransomware[0].summary;
  EXPECT_NE(outcome.ransomware[0].summary.find("Deduplication ratio"), std::string::npos) << outcome.ransomware[0].summary;
  EXPECT_TRUE(outcome.day_after_attack_accepted);
  ASSERT_EQ(outcome.deletion.size(), 1u);
  EXPECT_NE(outcome.deletion[0].summary.find("Backup files count"), std::string::npos) << outcome.deletion[0].summary;
}

}  // namespace tsanomaly_test
