#include "ingest/JsonlFormat.h"

#include <string>
#include <utility>

#include "ingest/BoundedLines.h"
#include "ingest/JsonFields.h"
#include "util/Json.h"

namespace {

// The key columns a line may name, by member.
void read_names(JsonFields& fields, IngestedJob& job) {
  const std::pair<const char*, std::string IngestedJob::*> names[] = {
      {"client", &IngestedJob::client},          {"policy", &IngestedJob::policy},
      {"policy_type", &IngestedJob::policy_type}, {"schedule_type", &IngestedJob::schedule_type},
      {"schedule", &IngestedJob::schedule_name},  {"storage", &IngestedJob::storage},
      {"asset", &IngestedJob::asset}};
  for (const auto& [member, field] : names) {
    if (auto text = fields.text(member, false)) job.*field = std::move(*text);
  }
}

// The five features; the duration may instead come from start and end, and
// the ratio from the two sizes.
void read_features(JsonFields& fields, IngestedJob& job) {
  job.num_files = fields.number("files", true).value_or(0);
  job.image_size_kb = fields.number("size_kb", true).value_or(0);
  job.kb_transferred = fields.number("transferred_kb", true).value_or(0);
  const auto seconds = fields.number("seconds", !(job.start_time && job.end_time));
  // In doubles: hostile times near the integer limits must not overflow.
  const bool timed = job.start_time && job.end_time;
  job.total_time_s = seconds ? *seconds : timed ? double(*job.end_time) - double(*job.start_time) : 0;
  const auto ratio = fields.number("dedup_ratio", false);
  job.dedup_rate = ratio ? *ratio : ingest_dedup_ratio(job.image_size_kb * 1024, job.kb_transferred * 1024);
}

void read_line(const std::string& line, const std::string& where, JobSink& sink) {
  if (line.find('\0') != std::string::npos) return sink.skipped(where, "holds a NUL byte");
  std::string error;
  const Json object = Json::parse(line, &error);
  if (!object.valid()) return sink.skipped(where, "not JSON: " + error);
  if (line[line.find_first_not_of(" \t\r")] != '{') return sink.skipped(where, "not a JSON object");
  JsonFields fields(object);
  IngestedJob job;
  job.tool = fields.text("tool", false).value_or("jsonl");
  job.tool_job_id = fields.text_or_whole("id", true).value_or("");
  read_names(fields, job);
  job.start_time = fields.whole("start", false);
  job.end_time = fields.whole("end", false);
  read_features(fields, job);
  const auto status = fields.text("status", false).value_or("ok");
  if (!fields.ok()) return sink.skipped(where, fields.problem());
  if (status != "ok") {
    return sink.skipped(where + " (job " + job.tool_job_id + ")", "the job failed (status \"" + status + "\")");
  }
  sink.job(std::move(job));
}

}  // namespace

void read_jsonl(std::istream& in, JobSink& sink) {
  BoundedLines lines(in);
  std::string line;
  while (lines.next(line)) {
    if (lines.too_long()) {
      sink.skipped(lines.where(), "longer than " + std::to_string(BoundedLines::kMaxLineBytes) + " bytes");
    } else if (line.find_first_not_of(" \t\r") != std::string::npos) {
      read_line(line, lines.where(), sink);
    }
  }
}
