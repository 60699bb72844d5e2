// WhyFlagged: why the detector reported an anomaly, for its page and its API
// answer. While the job is in the queue, the detector's own pass is replayed
// on an in-memory copy of its workload (JudgementReplay, as tsanomalyctl
// explain does): training set, eps, DBSCAN label, nearest usual cluster with
// its per-feature ranges, the rules tried. Once the job has left the queue,
// only what the stored report and the workload's history and model still
// say is shown; nothing is inferred beyond them. A workload with more than
// kMaxReplayRows history rows is not replayed (the copy grows with it) and
// the panel says so. Never throws for a replay that fails: it says why.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "operator/AnomalyStore.h"
#include "replay/JudgementReplay.h"
#include "util/Json.h"

inline constexpr long long kMaxReplayRows = 20000;

struct WhyFlagged {
  std::optional<Judgement> replay;
  std::string no_replay;  // why there is no replay, when there is none
  std::optional<WorkloadValues> workload;
  long long workload_rows = 0;                      // history rows on any storage
  std::optional<std::pair<double, time_t>> model;  // calibrated eps, when
};

// job_queued: whether the anomaly's job is still in DATA_TO_PROCESS.
WhyFlagged why_flagged(const std::string& database_path, const AnomalyRecord& anomaly, bool job_queued,
                       const ReplaySettings& settings);

// The panel of the anomaly's page.
std::string why_panel(const WhyFlagged& why, const AnomalyRecord& anomaly);
// The member "why" of the anomaly's API answer.
Json why_json(const WhyFlagged& why, const AnomalyRecord& anomaly);
