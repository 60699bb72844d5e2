// SimulatedWorkload: the simulator's model of a backup domain: kinds of
// backed-up systems (profiles), one workload of a kind with its names,
// schedule and usual levels, a normal job of it on a given day, and the
// injected anomalies, and where each job sits in time and in the job ids
// (Calendar). Pure computation on seeded random numbers.
#pragma once

#include <string>

#include "simulator/BackupSimulator.h"
#include "simulator/SeededRandom.h"
#include "util/TimeUnits.h"

namespace simulated_workload {

using seeded_random::Random;

// One backed-up thing with its schedule: the detector's workload key, where
// its jobs sit in time and in the job-id sequence, and its usual levels.
struct Workload {
  std::string client, policy, policy_type, schedule_type, schedule_name, app_type, storage, asset;
  int streams = 0;         // 0: one job a day as stream 0; else streams 1..streams
  int first_job_slot = 0;  // offset of its job ids within a day's ids
  int start_second = 0;    // of the day, inside the nightly backup window
  // A weekday job at day 0, before noise.
  double files = 0, size_kb = 0, dedup = 0, overhead_seconds = 0, kb_per_second = 0;
  double yearly_growth = 0;   // the mild trend
  double weekend_factor = 1;  // weekend jobs carry less
  double day_to_day = 0;      // spread (of the logarithm) of a day's change volume
};

// The five features of one job, in the units of the job tables.
struct Features {
  double files, size_kb, kb_transferred, seconds, dedup;
};

// How many kinds of backed-up systems there are.
inline constexpr int kProfileCount = 7;

// Workload number `number` (from 1) of profile `profile` (0 .. kProfileCount-1).
Workload make_workload(int profile, int number, Random& rng);

// A normal job of the workload on a day (a weekend day carries less).
Features normal_job(const Workload& w, int day, bool weekend, Random& rng);

// Changes a job's features as the kind of anomaly does.
void inject(BackupSimulator::AnomalyKind kind, Features& f);

// History ends 90 days before 2025-01-01 00:00 UTC, whatever the length
// asked for: a fixed date, not the clock, keeps the output reproducible.
inline constexpr long long kReferenceTime = 1735689600;
inline constexpr long long kHistoryEndBeforeReference = 90;
inline constexpr long long kFirstJobId = 100000;

// Where a job sits: its day starts first_day + day * 86400; job ids are
// numbered day by day, each workload owning a fixed slot range of a day's ids
// (a multi-stream job's parent takes the first id, its streams the next), so
// ids grow with start time in any order of generation.
class Calendar {
 public:
  Calendar(int history_days, int ids_per_day)
      : first_day_(kReferenceTime - (kHistoryEndBeforeReference + history_days) * kSecondsPerDay),
        ids_per_day_(ids_per_day) {}

  int backup_time(const Workload& w, int day, int stream) const {
    // Streams start a second apart, so each image gets its own backup id.
    return static_cast<int>(first_day_ + static_cast<long long>(day) * kSecondsPerDay + w.start_second + stream);
  }
  int job_id(const Workload& w, int day, int stream) const {
    return static_cast<int>(kFirstJobId + static_cast<long long>(day) * ids_per_day_ + w.first_job_slot + stream);
  }
  int parent_job_id(const Workload& w, int day, int stream) const {
    return w.streams == 0 ? job_id(w, day, stream) : job_id(w, day, 0);
  }
  bool weekend(int day) const {
    const long long weekday = (first_day_ / kSecondsPerDay + day + 4) % 7;  // 1970-01-01 was a Thursday
    return weekday == 0 || weekday == 6;
  }

 private:
  long long first_day_;
  int ids_per_day_;
};

}  // namespace simulated_workload
