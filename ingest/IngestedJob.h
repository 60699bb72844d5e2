// IngestedJob: one finished backup job as a backup tool reported it, in the
// detector's units, before it becomes a queue row. Every format reader fills
// these; the ingest core applies the operator's options over them, derives
// the queue's key and job number from `tool_job_id`, and writes the row.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct IngestedJob {
  // The tool's own id of the job (restic snapshot id, Borg archive id, Bacula
  // JobId, ...). Never empty: the queue's key is derived from it, so that the
  // same output ingested twice queues the job once.
  std::string tool_job_id;
  // Which tool wrote it ("restic", "borg", ...): part of the key, so two
  // tools' ids can never collide.
  std::string tool;

  // The workload key as the tool names it; empty where the output says
  // nothing (the operator's options or the core's defaults fill those).
  std::string client;
  std::string policy;
  std::string policy_type;
  std::string schedule_type;
  std::string schedule_name;
  std::string storage;
  std::string asset;

  // Epoch seconds; absent where the output carries no time.
  std::optional<std::int64_t> start_time;
  std::optional<std::int64_t> end_time;

  // The five features, in the units the detector expects.
  double num_files = 0;       // files in the backup
  double image_size_kb = 0;   // size of the backed-up data, kilobytes
  double kb_transferred = 0;  // data actually written to the repository, kilobytes
  double total_time_s = 0;    // duration, seconds
  double dedup_rate = 0;      // image size / data transferred (a ratio, 1 = nothing saved)
};

// The queue's job number for a tool id: the id itself when it is a decimal
// number that fits, otherwise a stable hash of it. Never above
// kMaxJobNumber: the detector reads JOB_ID as a 32-bit int (in its log, the
// anomaly's "jobid" and the history row it writes), so a wider number would
// come back wrapped, negative and unlike the queued one. JOB_ID is no key
// (UNIQUE_KEY is), so two tool ids sharing a number only share a label.
inline constexpr std::int64_t kMaxJobNumber = 2147483647;
std::int64_t ingest_job_number(const std::string& tool_job_id);

// The queue's UNIQUE_KEY for a job: "<tool>:<tool_job_id>".
std::string ingest_unique_key(const IngestedJob& job);

// Bytes as the detector's kilobytes (1 KB = 1024 bytes).
inline constexpr double ingest_kilobytes(double bytes) { return bytes / 1024.0; }

// The deduplication ratio of a job that read `processed_bytes` and stored
// `added_bytes` of new data: processed / added, with the added size counted
// as at least one kilobyte, so a job that adds nothing scores its processed
// size in kilobytes instead of dividing by zero, and capped at
// kIngestDedupCap. A day where everything is new (ransomware rewriting the
// files) scores about 1, far below the usual ratio of an incremental backup.
inline constexpr double kIngestDedupCap = 1e6;
double ingest_dedup_ratio(double processed_bytes, double added_bytes);
