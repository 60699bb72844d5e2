// StatusFigures: how a detector database stands, as `tsanomalyctl status`,
// the console's status page, its status API and its metrics all show it:
// the queue, the history, the models, the anomalies by state and by age,
// and the alert channels. Read in one read transaction on the caller's
// connection; storage failures are thrown as sqlite_exception.
#pragma once

#include <array>
#include <ctime>
#include <optional>
#include <vector>

#include "operator/AlertFigures.h"
#include "operator/AnomalyState.h"
#include "storage/DBAccess.h"

// The pending jobs the next pass cannot judge, by reason (counted by
// replaying them: replay/UnjudgeableJobs).
struct UnjudgeableCount {
  long long pending = 0;
  long long unequal_features = 0;   // fallback set, five features offered
  long long features_disabled = 0;  // every feature disabled for the policy type
  long long pass_failed = 0;        // the pass failed on the job otherwise
  long long total() const { return unequal_features + features_disabled + pass_failed; }
};

// The two figures that need a pass over the whole history.
struct HistoryCounts {
  long long rows = 0, workloads = 0;
  time_t taken = 0;  // when they were counted
};

struct StatusFigures {
  long long pending = 0, awaiting_verdict = 0, history_rows = 0, workloads = 0, models = 0;
  time_t history_counted = 0;  // when history_rows and workloads were counted
  std::array<long long, kAnomalyStateCount> by_state{};
  long long anomalies = 0, last_day = 0, last_week = 0;
  time_t newest_detection = 0;  // 0 when there is none
  std::vector<ChannelFigures> alert_channels;  // empty without alert tables
  // Filled only by callers that replay the pending jobs (too slow for every
  // metrics scrape).
  std::optional<UnjudgeableCount> unjudgeable;
};

// Every figure but the history's two, as of now.
StatusFigures read_status_figures(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db, time_t now);
HistoryCounts read_history_counts(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db, time_t now);
