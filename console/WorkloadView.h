// WorkloadView: one workload as its page shows it (/workloads?anomaly=ID,
// the workload of that anomaly's job): per feature a chart of its accepted
// jobs over the days up to its newest job (downsampled in SQL, see HistorySample) with each
// reported anomaly marked in its state's colour, the table of those
// anomalies, its calibrated model, and what the next pass would do with its
// pending jobs (replayed, as tsanomalyctl explain does, for the first few
// of a workload of at most kMaxReplayRows history rows). Bounded whatever
// the history's size. Storage failures are thrown.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operator/AnomalyState.h"
#include "operator/AnomalyStore.h"
#include "replay/JudgementReplay.h"

inline constexpr int kDefaultWorkloadDays = 365;
inline constexpr long long kMaxWorkloadAnomalies = 500;
inline constexpr long long kPendingJobsReplayed = 3;

struct WorkloadAnomaly {
  std::string id, summary, score;
  time_t detection_time = 0;
  HistoryPoint job;
  AnomalyState state = AnomalyState::open;
};

struct WorkloadView {
  WorkloadValues workload{};
  int days = kDefaultWorkloadDays;
  HistorySample history;
  std::vector<WorkloadAnomaly> anomalies;          // newest first
  std::optional<std::pair<double, time_t>> model;  // eps, calibrated at
  long long pending = 0;                           // pending jobs of the workload
  std::vector<std::pair<std::string, std::string>> next_pass;  // job key, what the next pass does
  std::string next_pass_note;                      // why no job was replayed, if none was
};

// None when the anomaly is unknown or its job is neither queued nor in the
// history (then its workload cannot be told).
std::optional<WorkloadView> workload_view(const std::string& database_path, const std::string& anomaly_id, int days,
                                          const ReplaySettings& settings);

std::string workload_page(const WorkloadView& view);
