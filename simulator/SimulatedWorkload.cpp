#include "simulator/SimulatedWorkload.h"

#include <cmath>
#include <cstdio>
#include <iterator>

namespace simulated_workload {

using AnomalyKind = BackupSimulator::AnomalyKind;

namespace {

// ---------------------------------------------------------------- catalogue

enum class AssetStyle { vm_id, host_id };

// One kind of backed-up system: how its names look and the range of the
// levels of its full backups (incrementals carry a share of them).
struct Profile {
  const char* client_prefix;  // web-prod -> web-prod-017
  int number_width;
  const char* policy_type;
  const char* app_type;
  const char* policy_stem;  // FS-Web -> FS-Web-Gold
  double min_files, max_files;
  double min_gb, max_gb;
  double min_dedup, max_dedup;
  AssetStyle asset;
};

constexpr Profile kProfiles[] = {
    {"web-prod", 3, "Standard", "FileSystem", "FS-Web", 50e3, 2e6, 20, 400, 4, 12, AssetStyle::host_id},
    {"app-linux", 3, "Standard", "FileSystem", "FS-Apps", 20e3, 1e6, 10, 300, 3, 10, AssetStyle::host_id},
    {"fs-corp", 3, "MS-Windows", "FileSystem", "WIN-FileServers", 200e3, 8e6, 100, 3000, 3, 8, AssetStyle::host_id},
    {"db-oracle", 2, "Oracle", "Oracle", "ORA-RMAN", 500, 5000, 200, 4000, 3, 8, AssetStyle::host_id},
    {"db-mssql", 2, "MS-SQL-Server", "MSSQL", "SQL-Prod", 500, 3000, 50, 1500, 3, 6, AssetStyle::host_id},
    {"vm-app", 3, "VMware", "VMware", "VMW-Cluster", 20e3, 600e3, 40, 800, 6, 20, AssetStyle::vm_id},
    {"nas-filer", 2, "NDMP", "NDMP", "NDMP-Shares", 1e6, 15e6, 500, 6000, 3, 6, AssetStyle::host_id},
};
static_assert(std::size(kProfiles) == kProfileCount, "one profile per kind");

const char* const kPolicySuffixes[] = {"Prod", "Tier1", "Gold", "Silver", "DC1", "DC2"};
const char* const kFullScheduleNames[] = {"Daily-Full", "Full-Nightly"};
const char* const kIncrementalScheduleNames[] = {"Daily-Incr", "Diff-Incr", "Cumulative-Incr"};
const char* const kStorageUnits[] = {"stu-dd-01", "stu-dd-02", "stu-dd-03", "stu-msdp-01", "stu-msdp-02"};

// Below this a count moves in steps that are large next to its day-to-day
// spread, and the detector's z-scores would see every step as a jump.
constexpr double kFewestFiles = 500;
constexpr double kKilobytesPerGigabyte = 1024.0 * 1024.0;


std::string numbered(const char* prefix, int width, int number) {
  char text[64];
  std::snprintf(text, sizeof text, "%s-%0*d", prefix, width, number);
  return text;
}

std::string asset_id(AssetStyle style, Random& rng) {
  char text[32];
  if (style == AssetStyle::vm_id) {
    std::snprintf(text, sizeof text, "vm-%d", static_cast<int>(1000 + rng.below(90000)));
  } else {
    std::snprintf(text, sizeof text, "host-%08x", static_cast<unsigned>(rng.below(0x100000000ULL)));
  }
  return text;
}

void name_workload(Workload& w, const Profile& p, int number, Random& rng) {
  w.client = numbered(p.client_prefix, p.number_width, number);
  w.policy = std::string(p.policy_stem) + "-" + rng.pick(kPolicySuffixes);
  w.policy_type = p.policy_type;
  w.app_type = p.app_type;
  w.storage = rng.pick(kStorageUnits);
  w.asset = asset_id(p.asset, rng);
}

// Levels chosen so that every feature varies by far more than its rounding
// step and the day-to-day spread stays moderate: normal jobs must form one
// dense cloud for the detector.
void set_levels(Workload& w, const Profile& p, bool full, Random& rng) {
  const double share = full ? 1.0 : rng.uniform(0.03, 0.12);  // incrementals carry the changed data only
  w.files = std::max(kFewestFiles, rng.log_uniform(p.min_files, p.max_files) * share);
  w.size_kb = rng.log_uniform(p.min_gb, p.max_gb) * kKilobytesPerGigabyte * share;
  w.dedup = rng.uniform(p.min_dedup, p.max_dedup) * (full ? 1.0 : 0.7);  // new data dedupes worse
  const double seconds = full ? rng.log_uniform(1800, 4 * 3600) : rng.log_uniform(600, 5400);
  const double overhead_share = rng.uniform(0.1, 0.3);  // catalog, snapshot, mount
  w.overhead_seconds = seconds * overhead_share;
  w.kb_per_second = w.size_kb / (seconds * (1 - overhead_share));
  w.yearly_growth = rng.uniform(-0.03, 0.12);
  w.weekend_factor = rng.uniform(0.85, 0.95);
  w.day_to_day = rng.uniform(0.05, 0.09);
}

Workload workload_of(const Profile& p, int number, Random& rng) {
  Workload w;
  name_workload(w, p, number, rng);
  const bool full = rng.uniform() < 0.4;
  w.schedule_type = full ? "FULL" : "INCR";
  w.schedule_name = full ? rng.pick(kFullScheduleNames) : rng.pick(kIncrementalScheduleNames);
  set_levels(w, p, full, rng);
  return w;
}

}  // namespace

// ---------------------------------------------------------------- one job

// The day's change volume moves files, sizes and duration together and the
// dedup rate the other way; what is left is small independent noise. The
// correlation keeps normal jobs close together once each feature is scaled
// to unit variance, as the detector does.
Features normal_job(const Workload& w, int day, bool weekend, Random& rng) {
  constexpr double kNoise = 0.015;
  constexpr double kThroughputNoise = 0.03;  // shared storage, other jobs
  const double change = w.day_to_day * rng.normal();
  const double trend = std::log1p(w.yearly_growth * day / 365.0);
  const double level = trend + (weekend ? std::log(w.weekend_factor) : 0.0) + change;
  Features f;
  f.files = w.files * std::exp(level + kNoise * rng.normal());
  f.size_kb = w.size_kb * std::exp(level + kNoise * rng.normal());
  f.dedup = w.dedup * std::exp(-0.5 * change + kNoise * rng.normal());
  f.kb_transferred = f.size_kb / f.dedup;
  f.seconds = w.overhead_seconds * std::exp(kNoise * rng.normal()) +
              f.size_kb / (w.kb_per_second * std::exp(kThroughputNoise * rng.normal()));
  return f;
}

void inject(AnomalyKind kind, Features& f) {
  switch (kind) {
    case AnomalyKind::size_spike:
      f.size_kb *= 5;
      f.kb_transferred *= 5;
      f.seconds *= 4;
      break;
    case AnomalyKind::file_count_collapse:
      f.files /= 10;
      f.size_kb /= 8;
      f.kb_transferred /= 8;
      break;
    case AnomalyKind::dedup_rate_drop:
      f.dedup /= 4;
      f.kb_transferred *= 3;
      break;
    case AnomalyKind::duration_blowup:
      f.seconds *= 6;
      break;
  }
}

Workload make_workload(int profile, int number, Random& rng) { return workload_of(kProfiles[profile], number, rng); }

}  // namespace simulated_workload
