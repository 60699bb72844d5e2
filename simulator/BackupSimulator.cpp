#include "simulator/BackupSimulator.h"

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
#include "simulator/SeededRandom.h"
#include "simulator/SimulatedWorkload.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using AnomalyKind = BackupSimulator::AnomalyKind;
using seeded_random::choose;
using seeded_random::Random;
using seeded_random::stream_key;
using simulated_workload::Features;
using simulated_workload::kProfileCount;
using simulated_workload::make_workload;
using simulated_workload::normal_job;
using simulated_workload::Calendar;
using simulated_workload::Workload;

namespace {

// What each independent stream of random numbers is for.
enum Purpose : std::uint64_t { kWorkloadPurpose = 1, kJobPurpose, kStreamChoicePurpose, kAnomalyChoicePurpose };

// The nightly backup window runs 18:00-06:00; workloads start spread over it.
constexpr int kWindowStart = 18 * 3600;
constexpr int kWindowLength = 12 * 3600;

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
      workloads.push_back(make_workload(profile, ++per_profile[profile], rng));
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
        simulated_workload::inject(*kind, f);
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
