#include "ingest/ResticFormat.h"

#include <cmath>
#include <string>

#include "ingest/BoundedLines.h"
#include "ingest/IsoTime.h"
#include "ingest/JsonFields.h"
#include "util/Json.h"

namespace {

// A snapshot list of tens of thousands of snapshots stays far below this.
constexpr std::size_t kMaxSnapshotListBytes = 64 << 20;
// restic's short id, which both outputs share (0.14's summary has only it),
// so ingesting a run's summary and later the snapshot list queues it once.
constexpr std::size_t kShortIdLength = 8;
constexpr const char* kUnreadableTime = "backup_start or backup_end is not a time stamp";

// The statistics both outputs share, by the same names, into the job.
void read_statistics(JsonFields& fields, IngestedJob& job) {
  const double files = fields.number("files_new", true).value_or(0) + fields.number("files_changed", true).value_or(0) +
                       fields.number("files_unmodified", true).value_or(0);
  const double processed = fields.number("total_bytes_processed", true).value_or(0);
  const double added = fields.number("data_added", true).value_or(0);
  job.num_files = files;
  job.image_size_kb = ingest_kilobytes(processed);
  job.kb_transferred = ingest_kilobytes(added);
  job.dedup_rate = ingest_dedup_ratio(processed, added);
}

// The member's time stamp, in seconds, or NaN when there is none; a stamp
// that is there but unreadable clears readable.
double time_stamp(JsonFields& fields, const char* name, bool& readable) {
  const auto text = fields.text(name, false);
  if (!text) return NAN;
  const auto seconds = iso_time_seconds(*text);
  readable = readable && seconds.has_value();
  return seconds.value_or(NAN);
}

// backup_start / backup_end, which restic writes since 0.17; false when one
// is there but unreadable.
bool read_times(JsonFields& fields, IngestedJob& job) {
  bool readable = true;
  const double start = time_stamp(fields, "backup_start", readable);
  const double end = time_stamp(fields, "backup_end", readable);
  if (!std::isnan(start)) job.start_time = static_cast<std::int64_t>(std::floor(start));
  if (!std::isnan(end)) job.end_time = static_cast<std::int64_t>(std::ceil(end));
  if (!std::isnan(start) && !std::isnan(end)) job.total_time_s = end - start;
  return readable;
}

IngestedJob restic_job(const std::string& id) {
  IngestedJob job;
  job.tool = "restic";
  job.tool_job_id = id.substr(0, kShortIdLength);
  return job;
}

void read_summary(const Json& message, const std::string& where, JobSink& sink) {
  JsonFields fields(message);
  const auto id = fields.text("snapshot_id", false);
  IngestedJob job = restic_job(id.value_or(""));
  read_statistics(fields, job);
  job.total_time_s = fields.number("total_duration", true).value_or(0);
  if (!read_times(fields, job)) return sink.skipped(where, kUnreadableTime);
  if (!fields.ok()) return sink.skipped(where, "summary: " + fields.problem());
  if (!id) return sink.skipped(where, "summary without a snapshot_id: a dry run saves no snapshot");
  sink.job(std::move(job));
}

// One line of the backup stream; answers whether it was a summary.
bool read_backup_line(const std::string& line, const std::string& where, JobSink& sink) {
  std::string error;
  const Json message = Json::parse(line, &error);
  if (!message.valid()) {
    sink.skipped(where, "not restic's JSON: " + (error.empty() ? "not an object" : error));
    return false;
  }
  const std::string type = message.member("message_type").as_text().value_or("");
  if (type == "summary") {
    read_summary(message, where, sink);
    return true;
  }
  if (type == "exit_error" || type == "error") {
    const Json inner = message.member("error");
    const std::string text = message.member("message").as_text().value_or(inner.member("message").as_text().value_or(""));
    sink.skipped(where, "restic reported an error: " + text);
  } else if (type.empty()) {
    sink.skipped(where, "not a restic message (no message_type)");
  }
  return false;
}

void read_backup_stream(std::istream& in, JobSink& sink) {
  BoundedLines lines(in);
  std::string line;
  bool summary_seen = false;
  while (lines.next(line)) {
    if (lines.too_long()) {
      sink.skipped(lines.where(), "longer than " + std::to_string(BoundedLines::kMaxLineBytes) + " bytes");
    } else if (line.find_first_not_of(" \t\r") != std::string::npos) {
      summary_seen = read_backup_line(line, lines.where(), sink) || summary_seen;
    }
  }
  if (lines.number() > 0 && !summary_seen) {
    sink.skipped("the backup", "no summary message: the backup did not finish (a failed job)");
  }
}

void read_snapshot(const Json& snapshot, std::size_t index, JobSink& sink) {
  JsonFields fields(snapshot);
  const auto id = fields.text("id", true);
  const std::string where = id ? "snapshot " + id->substr(0, kShortIdLength) : "snapshot #" + std::to_string(index + 1);
  if (!fields.ok()) return sink.skipped(where, fields.problem());
  const Json summary = snapshot.member("summary");
  if (!summary.valid()) {
    return sink.skipped(where, "carries no summary (restic records one since 0.17); ingest the output of "
                               "'restic backup --json' instead");
  }
  IngestedJob job = restic_job(*id);
  job.client = fields.text("hostname", false).value_or("");
  JsonFields statistics(summary);
  read_statistics(statistics, job);
  if (!read_times(statistics, job)) return sink.skipped(where, kUnreadableTime);
  if (!statistics.ok() || !fields.ok()) return sink.skipped(where, statistics.ok() ? fields.problem() : statistics.problem());
  if (!job.start_time || !job.end_time) return sink.skipped(where, "summary without backup_start and backup_end");
  sink.job(std::move(job));
}

void read_snapshot_list(std::istream& in, JobSink& sink) {
  std::string document;
  document.reserve(1 << 16);
  char buffer[1 << 16];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    document.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (document.size() > kMaxSnapshotListBytes) {
      return sink.skipped("the snapshot list", "longer than " + std::to_string(kMaxSnapshotListBytes) + " bytes");
    }
  }
  std::string error;
  const Json list = Json::parse(document, &error);
  if (!list.valid()) return sink.skipped("the snapshot list", "not restic's JSON array: " + error);
  for (std::size_t i = 0; i < list.array_size(); ++i) read_snapshot(list.element(i), i, sink);
}

}  // namespace

void read_restic(std::istream& in, JobSink& sink) {
  in >> std::ws;
  if (in.peek() == '[') {
    read_snapshot_list(in, sink);
  } else {
    read_backup_stream(in, sink);
  }
}
