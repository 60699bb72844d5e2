#include "ingest/IngestRun.h"

#include <algorithm>
#include <cmath>

#include "platform/VisibleText.h"
#include "util/Text.h"

namespace {

constexpr std::size_t kMaxNameBytes = 200;
// 9999-12-31T23:59:59Z; an epoch time past it is a unit mistake (milliseconds).
constexpr std::int64_t kLatestTime = 253402300799;
// What the product's columns hold: a year-long job or an exabyte is a unit
// mistake or garbage, and the detector would standardise it into nonsense.
constexpr double kMaxFiles = 1e12;
constexpr double kMaxKilobytes = 1e15;
constexpr double kMaxSeconds = 366.0 * 24 * 3600;

// What the product writes for "none": no storage unit, no single asset.
constexpr const char* kNone = "NA";
// Each snapshot of a deduplicating tool is a complete image of its source.
constexpr const char* kScheduleType = "FULL";
constexpr const char* kScheduleName = "default";

bool plausible_time(std::int64_t time) { return time >= 0 && time <= kLatestTime; }

bool printable_utf8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const std::size_t length = text::utf8_sequence_length(text, i);
    if (length == 0 || byte < 0x20 || byte == 0x7f) return false;
    i += length;
  }
  return true;
}

std::string name_problem(const char* what, const std::string& text) {
  if (text.empty()) return std::string(what) + " is empty";
  if (text.size() > kMaxNameBytes) return std::string(what) + " is longer than " + std::to_string(kMaxNameBytes) + " bytes";
  if (!printable_utf8(text)) return std::string(what) + " is not printable UTF-8 text";
  return "";
}

std::string feature_problem(const char* what, double value, double max) {
  if (!std::isfinite(value)) return std::string(what) + " is not a finite number";
  if (value < 0) return std::string(what) + " is negative";
  if (value > max) return std::string(what) + " is implausibly large";
  return "";
}

void apply(std::string& field, const std::optional<std::string>& option, const std::string& fallback) {
  if (option) field = *option;
  if (field.empty()) field = fallback;
}

std::string first_problem(std::initializer_list<std::string> problems) {
  for (const std::string& problem : problems) {
    if (!problem.empty()) return problem;
  }
  return "";
}

}  // namespace

void complete_ingested_job(IngestedJob& job, const IngestOptions& options) {
  apply(job.client, options.client, options.default_client);
  apply(job.policy, options.policy, job.tool);
  apply(job.policy_type, options.policy_type, job.tool);
  apply(job.schedule_type, std::nullopt, kScheduleType);
  apply(job.schedule_name, options.schedule_name, kScheduleName);
  apply(job.storage, options.storage, kNone);
  apply(job.asset, options.asset, kNone);
  // Times and durations out of range are refused by the check; they must
  // not overflow here, so only plausible ones are added up.
  const bool plausible_duration = std::isfinite(job.total_time_s) && std::fabs(job.total_time_s) <= kMaxSeconds;
  const auto seconds = plausible_duration ? static_cast<std::int64_t>(std::llround(job.total_time_s)) : 0;
  if (!job.end_time && (!job.start_time || plausible_time(*job.start_time))) {
    job.end_time = job.start_time ? *job.start_time + seconds : options.default_end_time;
  }
  if (!job.start_time && job.end_time && plausible_time(*job.end_time)) job.start_time = *job.end_time - seconds;
}

std::string ingest_job_problem(const IngestedJob& job) {
  std::string problem = first_problem(
      {name_problem("the job id", job.tool_job_id), name_problem("the tool", job.tool),
       name_problem("the client", job.client), name_problem("the policy", job.policy),
       name_problem("the policy type", job.policy_type), name_problem("the schedule type", job.schedule_type),
       name_problem("the schedule", job.schedule_name), name_problem("the storage", job.storage),
       name_problem("the asset", job.asset), feature_problem("the file count", job.num_files, kMaxFiles),
       feature_problem("the size", job.image_size_kb, kMaxKilobytes),
       feature_problem("the data transferred", job.kb_transferred, kMaxKilobytes),
       feature_problem("the duration", job.total_time_s, kMaxSeconds),
       feature_problem("the deduplication ratio", job.dedup_rate, kIngestDedupCap)});
  if (!problem.empty()) return problem;
  for (const auto& time : {job.start_time, job.end_time}) {
    if (time && !plausible_time(*time)) return "a time is outside the years 1970 to 9999";
  }
  if (!job.start_time || !job.end_time) return "the job has no time";
  if (*job.start_time > *job.end_time) return "the job ends before it starts";
  return "";
}

IngestRun::IngestRun(const IngestFormat& format, const IngestOptions& options, QueueWriter& writer,
                     std::ostream& errors)
    : format_(format), options_(options), writer_(writer), errors_(errors) {}

void IngestRun::read(std::istream& in, const std::string& source) {
  source_ = source;
  records_ = 0;
  format_.read(in, *this);
  if (records_ == 0) skipped("input", "holds no job (empty input)");
  // Oldest first, so the next pass judges each job against those before it.
  std::stable_sort(past_jobs_.begin(), past_jobs_.end(),
                   [](const IngestedJob& a, const IngestedJob& b) { return *a.start_time < *b.start_time; });
  for (IngestedJob& job : past_jobs_) writer_.add(std::move(job));
  past_jobs_.clear();
}

void IngestRun::job(IngestedJob job) {
  ++records_;
  complete_ingested_job(job, options_);
  if (const std::string problem = ingest_job_problem(job); !problem.empty()) {
    return skipped("job " + job.tool_job_id.substr(0, 64), problem);
  }
  if (format_.lists_past_jobs) {
    past_jobs_.push_back(std::move(job));
  } else {
    writer_.add(std::move(job));
  }
}

void IngestRun::skipped(const std::string& where, const std::string& why) {
  ++records_;
  ++skipped_;
  errors_ << "tsanomalyctl ingest: " << visible_text(source_) << ": " << visible_text(where) << ": skipped: "
          << visible_text(why) << "\n";
}
