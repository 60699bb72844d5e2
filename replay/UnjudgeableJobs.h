// UnjudgeableJobs: how many of the pending jobs the next pass cannot judge
// (they would stay pending at every pass), and why. Each job that could be
// one is replayed with JudgementReplay; the database is only read. Throws
// what JudgementReplay throws.
#pragma once

#include <string>

#include "replay/JudgementReplay.h"

struct UnjudgeableCount {
  long long pending = 0;
  long long unequal_features = 0;   // fallback set, five features offered
  long long features_disabled = 0;  // every feature disabled for the policy type
  long long pass_failed = 0;        // the pass failed on the job otherwise
  long long total() const { return unequal_features + features_disabled + pass_failed; }
};

UnjudgeableCount count_unjudgeable_jobs(const std::string& database_path, const ReplaySettings& settings);
