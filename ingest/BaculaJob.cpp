#include "ingest/BaculaJob.h"

#include <optional>
#include <stdexcept>

#include "ingest/IsoTime.h"
#include "util/Text.h"

namespace {

// Thrown inside this unit only, caught by deliver_bacula_job: the reason a
// job cannot be queued.
struct Rejected : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A petabyte-scale job is plausible, an exabyte one is a corrupt field; the
// bound also keeps every count exact in a double.
constexpr long long kMostBytes = 1LL << 53;
constexpr long long kMostFiles = 1LL << 40;
// 9999-12-31, the last second a catalog's text time can name.
constexpr long long kLastEpoch = 253402300799LL;

const std::string& field(const BaculaJob& job, const std::string& name) {
  const auto it = job.find(name);
  if (it == job.end() || it->second.empty()) throw Rejected("no " + name);
  return it->second;
}

bool is_clean_utf8(const std::string& value) {
  for (unsigned char c : value)
    if (c < 0x20 || c == 0x7f) return false;
  return text::as_utf8(value) == value;
}

// A name that becomes part of the workload key: bounded, printable UTF-8.
std::string name_field(const BaculaJob& job, const std::string& name) {
  const std::string& value = field(job, name);
  if (value.size() > kBaculaMaxFieldBytes) throw Rejected(name + " is longer than 1024 bytes");
  if (!is_clean_utf8(value)) throw Rejected(name + " is not printable UTF-8");
  return value;
}

// Empty when the job has none (a pool or file set since deleted from the
// catalog): the ingest core's default fills it.
std::string optional_name_field(const BaculaJob& job, const std::string& name) {
  const auto it = job.find(name);
  return it == job.end() || it->second.empty() ? std::string() : name_field(job, name);
}

long long count_field(const BaculaJob& job, const std::string& name, long long most) {
  const auto value = text::whole_number(field(job, name), 0, most);
  if (!value) throw Rejected(name + " is not a whole number from 0 to " + std::to_string(most));
  return *value;
}

// Epoch seconds, or the catalog's "YYYY-MM-DD HH:MM:SS" in the Director's
// local time.
long long time_field(const BaculaJob& job, const std::string& name) {
  const std::string& value = field(job, name);
  auto epoch = text::whole_number(value, 0, kLastEpoch);
  if (!epoch) {
    const auto seconds = iso_time_seconds(value);
    if (seconds && *seconds >= 0 && *seconds <= static_cast<double>(kLastEpoch)) epoch = static_cast<long long>(*seconds);
  }
  if (!epoch) throw Rejected(name + " is neither epoch seconds nor a time \"YYYY-MM-DD HH:MM:SS\"");
  return *epoch;
}

// The catalog stores the level as one letter, %l writes its name; both end
// as the name, so backfilled and hooked jobs share a workload.
std::string level_name(const std::string& level) {
  static const std::map<std::string, std::string> names = {
      {"F", "Full"}, {"I", "Incremental"}, {"D", "Differential"}, {"f", "VirtualFull"}, {"B", "Base"}};
  const auto it = names.find(level);
  return it == names.end() ? level : it->second;
}

void require_terminated_ok(const BaculaJob& job) {
  const std::string& status = field(job, "jobstatus");
  if (status != "T" && status != "OK")
    throw Rejected("Bacula status \"" + status.substr(0, kBaculaMaxFieldBytes) + "\", not T (terminated OK)");
}

IngestedJob map_job(const BaculaJob& fields) {
  require_terminated_ok(fields);
  IngestedJob job;
  job.tool = kBaculaTool;
  job.tool_job_id = name_field(fields, "job");
  job.client = name_field(fields, "client");
  job.policy = name_field(fields, "name");
  job.schedule_type = level_name(name_field(fields, "level"));
  job.storage = optional_name_field(fields, "pool");
  job.asset = optional_name_field(fields, "fileset");
  job.start_time = time_field(fields, "starttime");
  job.end_time = time_field(fields, "endtime");
  if (*job.end_time < *job.start_time) throw Rejected("endtime is before starttime");
  job.num_files = static_cast<double>(count_field(fields, "jobfiles", kMostFiles));
  const long long job_bytes = count_field(fields, "jobbytes", kMostBytes);
  const long long read_bytes = count_field(fields, "readbytes", kMostBytes);
  job.image_size_kb = ingest_kilobytes(static_cast<double>(read_bytes));
  job.kb_transferred = ingest_kilobytes(static_cast<double>(job_bytes));
  job.total_time_s = static_cast<double>(*job.end_time - *job.start_time);
  // What compression saved: Bacula does not deduplicate by default.
  job.dedup_rate = ingest_dedup_ratio(static_cast<double>(read_bytes), static_cast<double>(job_bytes));
  return job;
}

}  // namespace

void deliver_bacula_job(const BaculaJob& fields, const std::string& where, JobSink& sink) {
  try {
    sink.job(map_job(fields));
  } catch (const Rejected& rejected) {
    const auto jobid = fields.find("jobid");
    const bool named = jobid != fields.end() && text::whole_number(jobid->second, 1, kMostFiles).has_value();
    sink.skipped(named ? where + " (JobId " + jobid->second + ")" : where, rejected.what());
  }
}
