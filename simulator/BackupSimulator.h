// BackupSimulator: fills a detector database with a believable backup history
// and a queue of pending jobs for synthetic workloads, a known share of the
// pending jobs made anomalous and recorded in SIMULATED_ANOMALY (a table the
// detector never reads). The content depends on the settings and the seed
// only: never on the clock, nor on the standard library's distributions,
// whose output differs between vendors and versions.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "storage/DBAccess.h"

class BackupSimulator {
 public:
  enum class AnomalyKind { size_spike, file_count_collapse, dedup_rate_drop, duration_blowup };
  static constexpr int kAnomalyKinds = 4;
  // Stream numbers 1..4 of every multi-stream workload.
  static constexpr int kStreamsPerMultiStreamWorkload = 4;
  // Bounds that keep every job id and epoch second within 32 bits, which is
  // how the detector reads them.
  static constexpr int kMaxWorkloads = 20000;
  static constexpr int kMaxDays = 3650;
  static constexpr int kMaxPending = 1000000;

  struct Settings {
    int workloads = 50;
    int days = 120;                      // of history per workload
    int pending = 50;                    // jobs queued after the history
    double anomaly_percent = 5.0;        // of the pending jobs
    bool multi_stream = false;           // some workloads run four streams
    double stream_share_percent = 20.0;  // of the workloads, with multi_stream
    std::uint64_t seed = 1;
  };

  struct Summary {
    int workloads = 0;
    int multi_stream_workloads = 0;
    long long history_rows = 0;
    long long pending_jobs = 0;
    std::array<long long, kAnomalyKinds> anomalies{};  // indexed by AnomalyKind
  };

  // Told the rows written so far and the rows to write in all, every few
  // thousand rows.
  using Progress = std::function<void(long long done, long long total)>;

  explicit BackupSimulator(const Settings& settings) : settings_(settings) {}

  int multi_stream_workloads() const;
  // One pending job per workload per day: the days the queue spans.
  int pending_days() const;
  long long history_rows() const;
  long long total_rows() const { return history_rows() + settings_.pending; }

  // Creates the schema when missing, then writes everything in one
  // transaction. Throws std::runtime_error, writing no job, when the database
  // already holds history, pending jobs or simulated ground truth (a second
  // run would mix two simulations); storage failures throw sqlite_exception
  // and roll back.
  Summary fill(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db,
               const Progress& progress = nullptr) const;

  // The KIND text stored in SIMULATED_ANOMALY, e.g. "size_spike".
  static const char* kind_name(AnomalyKind kind);

 private:
  Settings settings_;
};
