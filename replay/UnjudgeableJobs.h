// UnjudgeableJobs: how many of the pending jobs the next pass cannot judge
// (they would stay pending at every pass), and why. Each job that could be
// one is replayed with JudgementReplay; the database is only read. Throws
// what JudgementReplay throws.
#pragma once

#include <string>

#include "operator/StatusFigures.h"
#include "replay/JudgementReplay.h"

UnjudgeableCount count_unjudgeable_jobs(const std::string& database_path, const ReplaySettings& settings);
