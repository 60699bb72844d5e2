#include "tools/BackupSimulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/Statement.h"
#include "tools/SeededRandom.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using AnomalyKind = BackupSimulator::AnomalyKind;
using seeded_random::choose;
using seeded_random::Random;
using seeded_random::stream_key;

namespace {

// What each independent stream of random numbers is for.
enum Purpose : std::uint64_t { kWorkloadPurpose = 1, kJobPurpose, kStreamChoicePurpose, kAnomalyChoicePurpose };

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
constexpr int kProfileCount = static_cast<int>(std::size(kProfiles));

const char* const kPolicySuffixes[] = {"Prod", "Tier1", "Gold", "Silver", "DC1", "DC2"};
const char* const kFullScheduleNames[] = {"Daily-Full", "Full-Nightly"};
const char* const kIncrementalScheduleNames[] = {"Daily-Incr", "Diff-Incr", "Cumulative-Incr"};
const char* const kStorageUnits[] = {"stu-dd-01", "stu-dd-02", "stu-dd-03", "stu-msdp-01", "stu-msdp-02"};

// Below this a count moves in steps that are large next to its day-to-day
// spread, and the detector's z-scores would see every step as a jump.
constexpr double kFewestFiles = 500;
constexpr double kKilobytesPerGigabyte = 1024.0 * 1024.0;

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

Workload make_workload(const Profile& p, int number, Random& rng) {
  Workload w;
  name_workload(w, p, number, rng);
  const bool full = rng.uniform() < 0.4;
  w.schedule_type = full ? "FULL" : "INCR";
  w.schedule_name = full ? rng.pick(kFullScheduleNames) : rng.pick(kIncrementalScheduleNames);
  set_levels(w, p, full, rng);
  return w;
}

// ---------------------------------------------------------------- one job

struct Features {
  double files, size_kb, kb_transferred, seconds, dedup;
};

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

// ---------------------------------------------------------------- time and ids

// History ends 90 days before 2025-01-01 00:00 UTC, whatever the length
// asked for: a fixed date, not the clock, keeps the output reproducible.
constexpr long long kReferenceTime = 1735689600;
constexpr long long kHistoryEndBeforeReference = 90;
constexpr int kSecondsPerDay = 86400;
constexpr int kWindowStart = 18 * 3600;  // the nightly window runs 18:00-06:00
constexpr int kWindowLength = 12 * 3600;
constexpr long long kFirstJobId = 100000;

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

// ---------------------------------------------------------------- writing

// Columns both job tables share, in the queue's order; each table adds one
// constant: MODE 1 in the history, PROCESSED_STATUS 0 in the queue.
constexpr int kBoundJobColumns = 21;
constexpr const char* kJobColumns =
    "BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, NUM_FILES, "
    "IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, KB_TRANSFERRED, START_TIME, END_TIME, TOTAL_TIME, DEDUP_RATE, "
    "DESTINATION_STORAGE_NAME, STREAM_NUMBER, ASSET_ID, UNIQUE_KEY, USER_IDENTIFIED_CLUSTER, ";

std::string insert_job_sql(const std::string& table, const std::string& constant_column, int constant) {
  std::string sql = "INSERT INTO " + table + " (" + kJobColumns + constant_column + ") VALUES (";
  for (int i = 0; i < kBoundJobColumns; ++i) sql += "?, ";
  return sql + "-1, " + std::to_string(constant) + ")";
}

const char* const kGroundTruthDdl =
    "CREATE TABLE IF NOT EXISTS SIMULATED_ANOMALY (UNIQUE_KEY TEXT PRIMARY KEY, KIND TEXT NOT NULL)";

std::string unique_key(const Workload& w, int day, int stream) {
  return w.client + "/" + w.policy + "/" + w.schedule_name + "/" + std::to_string(stream) + "/" + std::to_string(day);
}

// Cells as the product records them: whole files, kilobytes and seconds, a
// dedup rate to two decimals. Rounding also hides the last-bit differences
// that exp and log may show between C libraries.
void bind_job(Statement& st, const Workload& w, int day, int stream, const Features& f, const Calendar& calendar) {
  const int start = calendar.backup_time(w, day, stream);
  const int seconds = static_cast<int>(std::llround(f.seconds));
  int column = 0;
  st.reset();
  st.bind(++column, w.client + "_" + std::to_string(start));
  st.bind(++column, start);
  for (const std::string* text : {&w.client, &w.policy, &w.policy_type, &w.schedule_type, &w.schedule_name,
                                  &w.app_type}) {
    st.bind(++column, *text);
  }
  st.bind(++column, static_cast<int>(std::max(1LL, std::llround(f.files))));
  st.bind(++column, std::round(f.size_kb));
  st.bind(++column, calendar.job_id(w, day, stream));
  st.bind(++column, calendar.parent_job_id(w, day, stream));
  st.bind(++column, std::round(f.kb_transferred));
  st.bind(++column, start);
  st.bind(++column, start + seconds);
  st.bind(++column, seconds);
  st.bind(++column, std::round(f.dedup * 100) / 100);
  st.bind(++column, w.storage);
  st.bind(++column, stream);
  st.bind(++column, w.asset);
  st.bind(++column, unique_key(w, day, stream));
}

void refuse_filled_database(DBAccess& db) {
  Rows rows;
  db.read_data(
      "SELECT EXISTS (SELECT 1 FROM HIST_DATA) AS HIST_DATA, EXISTS (SELECT 1 FROM DATA_TO_PROCESS) AS "
      "DATA_TO_PROCESS, EXISTS (SELECT 1 FROM SIMULATED_ANOMALY) AS SIMULATED_ANOMALY",
      rows);
  std::string filled;
  for (const auto& [table, present] : rows.at(0)) {
    if (static_cast<int>(present) != 0) filled += (filled.empty() ? "" : ", ") + table;
  }
  if (!filled.empty()) {
    throw std::runtime_error("the database already holds jobs (" + filled +
                             "); simulate fills only an empty one, so that a seed always gives the same data");
  }
}

// One run of BackupSimulator::fill: the workloads, where their jobs sit, and
// the statements that write them.
class Filler {
 public:
  Filler(const BackupSimulator& simulator, const BackupSimulator::Settings& settings, DBAccess& db,
         const BackupSimulator::Progress& progress)
      : simulator_(simulator),
        settings_(settings),
        progress_(progress),
        workloads_(make_workloads()),
        calendar_(settings.days, ids_per_day()),
        history_(db.handle, insert_job_sql("HIST_DATA", "MODE", 1)),
        queue_(db.handle, insert_job_sql("DATA_TO_PROCESS", "PROCESSED_STATUS", 0)),
        truth_(db.handle, "INSERT INTO SIMULATED_ANOMALY (UNIQUE_KEY, KIND) VALUES (?, ?)"),
        db_(db) {}

  BackupSimulator::Summary run() {
    summary_.workloads = settings_.workloads;
    summary_.multi_stream_workloads = simulator_.multi_stream_workloads();
    for (std::size_t i = 0; i < workloads_.size(); ++i) write_history(i);
    write_queue();
    if (progress_) progress_(written_, simulator_.total_rows());
    return summary_;
  }

 private:
  std::vector<Workload> make_workloads() const {
    std::vector<Workload> workloads;
    int per_profile[kProfileCount] = {};
    for (int i = 0; i < settings_.workloads; ++i) {
      Random rng(stream_key(settings_.seed, kWorkloadPurpose, static_cast<std::uint64_t>(i)));
      const int profile = static_cast<int>(rng.below(kProfileCount));
      workloads.push_back(make_workload(kProfiles[profile], ++per_profile[profile], rng));
    }
    Random rng(stream_key(settings_.seed, kStreamChoicePurpose));
    for (int i : choose(settings_.workloads, simulator_.multi_stream_workloads(), rng)) {
      workloads[i].streams = BackupSimulator::kStreamsPerMultiStreamWorkload;
      workloads[i].asset = "NA";
    }
    place_in_schedule(workloads);
    return workloads;
  }

  // Start times spread over the backup window in workload order, and job-id
  // slots in the same order, so ids follow start times.
  void place_in_schedule(std::vector<Workload>& workloads) const {
    int slot = 0;
    for (std::size_t i = 0; i < workloads.size(); ++i) {
      workloads[i].start_second = kWindowStart + static_cast<int>(i * kWindowLength / workloads.size());
      workloads[i].first_job_slot = slot;
      slot += 1 + workloads[i].streams;
    }
  }

  int ids_per_day() const {
    return settings_.workloads + simulator_.multi_stream_workloads() * BackupSimulator::kStreamsPerMultiStreamWorkload;
  }

  Random job_random(std::size_t workload, int day) const {
    return Random(stream_key(settings_.seed, kJobPurpose, workload, static_cast<std::uint64_t>(day)));
  }

  void write_history(std::size_t index) {
    const Workload& w = workloads_[index];
    const int first_stream = w.streams == 0 ? 0 : 1;
    for (int day = 0; day < settings_.days; ++day) {
      Random rng = job_random(index, day);
      for (int stream = first_stream; stream <= w.streams; ++stream) {
        bind_job(history_, w, day, stream, normal_job(w, day, calendar_.weekend(day), rng), calendar_);
        db_.execute_query_prepared(history_);
        count_row();
        ++summary_.history_rows;
      }
    }
  }

  // Pending job i belongs to workload i mod W on the (i div W)-th day after
  // the history; a multi-stream workload queues its streams in turn.
  void write_queue() {
    const std::vector<std::optional<AnomalyKind>> kinds = anomaly_plan();
    for (int i = 0; i < settings_.pending; ++i) {
      const std::size_t index = static_cast<std::size_t>(i % settings_.workloads);
      const int after = i / settings_.workloads;
      const Workload& w = workloads_[index];
      const int day = settings_.days + after;
      const int stream = w.streams == 0 ? 0 : 1 + after % w.streams;
      Random rng = job_random(index, day);
      Features f = normal_job(w, day, calendar_.weekend(day), rng);
      if (const auto kind = kinds[i]) {
        inject(*kind, f);
        record_truth(unique_key(w, day, stream), *kind);
      }
      bind_job(queue_, w, day, stream, f, calendar_);
      db_.execute_query_prepared(queue_);
      count_row();
      ++summary_.pending_jobs;
    }
  }

  // The kind injected into each pending job, if any: a seeded choice of jobs,
  // the kinds taking turns from a seeded start so that all four show up.
  std::vector<std::optional<AnomalyKind>> anomaly_plan() const {
    std::vector<std::optional<AnomalyKind>> kinds(static_cast<std::size_t>(settings_.pending));
    const int count = static_cast<int>(std::llround(settings_.pending * settings_.anomaly_percent / 100.0));
    Random rng(stream_key(settings_.seed, kAnomalyChoicePurpose));
    const std::uint64_t first_kind = rng.below(BackupSimulator::kAnomalyKinds);
    std::uint64_t turn = 0;
    for (int i : choose(settings_.pending, count, rng)) {
      kinds[i] = static_cast<AnomalyKind>((first_kind + turn++) % BackupSimulator::kAnomalyKinds);
    }
    return kinds;
  }

  void record_truth(const std::string& key, AnomalyKind kind) {
    truth_.reset();
    truth_.bind(1, key);
    truth_.bind(2, std::string(BackupSimulator::kind_name(kind)));
    db_.execute_query_prepared(truth_);
    ++summary_.anomalies[static_cast<std::size_t>(kind)];
  }

  void count_row() {
    constexpr long long kProgressEvery = 4096;
    if (++written_ % kProgressEvery == 0 && progress_) progress_(written_, simulator_.total_rows());
  }

  const BackupSimulator& simulator_;
  const BackupSimulator::Settings& settings_;
  const BackupSimulator::Progress& progress_;
  std::vector<Workload> workloads_;
  Calendar calendar_;
  Statement history_;
  Statement queue_;
  Statement truth_;
  DBAccess& db_;
  BackupSimulator::Summary summary_;
  long long written_ = 0;
};

}  // namespace

int BackupSimulator::multi_stream_workloads() const {
  if (!settings_.multi_stream) return 0;
  return static_cast<int>(std::llround(settings_.workloads * settings_.stream_share_percent / 100.0));
}

int BackupSimulator::pending_days() const {
  return (settings_.pending + settings_.workloads - 1) / settings_.workloads;
}

long long BackupSimulator::history_rows() const {
  const long long multi = multi_stream_workloads();
  const long long jobs_per_day = settings_.workloads - multi + multi * kStreamsPerMultiStreamWorkload;
  return jobs_per_day * settings_.days;
}

BackupSimulator::Summary BackupSimulator::fill(DBAccess& db, const Progress& progress) const {
  // Generated data can be generated again: no need to wait for the disk.
  db.execute_query("PRAGMA synchronous = OFF");
  db.execute_query(anomaly_schema::anomaly_db_sql());
  db.execute_query(kGroundTruthDdl);
  db.begin_transaction();
  try {
    refuse_filled_database(db);
    Summary summary = Filler(*this, settings_, db, progress).run();
    db.commit_transaction();
    return summary;
  } catch (...) {
    try {
      db.rollback_transaction();
    } catch (...) {
      // The first failure is the one worth reporting.
    }
    throw;
  }
}

const char* BackupSimulator::kind_name(AnomalyKind kind) {
  switch (kind) {
    case AnomalyKind::size_spike:
      return "size_spike";
    case AnomalyKind::file_count_collapse:
      return "file_count_collapse";
    case AnomalyKind::dedup_rate_drop:
      return "dedup_rate_drop";
    case AnomalyKind::duration_blowup:
      return "duration_blowup";
  }
  return "unknown";
}
