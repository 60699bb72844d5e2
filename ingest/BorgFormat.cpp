#include "ingest/BorgFormat.h"

#include <cmath>
#include <optional>

#include "ingest/ArchiveName.h"
#include "ingest/BadRecord.h"
#include "ingest/IsoTime.h"
#include "ingest/JsonDocuments.h"
#include "ingest/TargetName.h"

namespace {

// Longer than any real archive name, host name or repository location.
constexpr std::size_t kMaxNameBytes = 1024;
// A petabyte-scale repository is 2^50 bytes; a bound far above it still
// stops a value that would overflow the detector's arithmetic.
constexpr double kMaxBytes = 1e18;
constexpr double kMaxFiles = 1e12;
constexpr double kMaxSeconds = 366.0 * 86400;

std::string bounded_text(const Json& value, const char* name, bool required) {
  const std::optional<std::string> text = value.member(name).as_text();
  if (!text) {
    if (required) throw BadRecord(std::string("no \"") + name + "\" text");
    return {};
  }
  if (text->size() > kMaxNameBytes) throw BadRecord(std::string("\"") + name + "\" is longer than 1024 bytes");
  return *text;
}

double bounded_number(const Json& value, const char* name, double max) {
  const std::optional<double> number = value.member(name).as_number();
  if (!number) throw BadRecord(std::string("no \"") + name + "\" number");
  if (!std::isfinite(*number) || *number < 0 || *number > max)
    throw BadRecord(std::string("\"") + name + "\" is out of range");
  return *number;
}

std::optional<std::int64_t> archive_time(const Json& archive, const char* name) {
  const std::string text = bounded_text(archive, name, false);
  if (text.empty()) return std::nullopt;
  const std::optional<double> epoch = iso_time_seconds(text);
  if (!epoch) throw BadRecord(std::string("\"") + name + "\" is not an ISO time");
  return static_cast<std::int64_t>(*epoch);
}

// The job's key and times from the archive; the repository's location and
// the name's prefix make the policy, so two backup sets sharing a repository
// are two workloads.
void fill_identity(const Json& archive, const std::string& location, IngestedJob& job) {
  job.tool = "borg";
  job.tool_job_id = bounded_text(archive, "id", true);
  if (job.tool_job_id.empty()) throw BadRecord("an empty \"id\"");
  job.client = bounded_text(archive, "hostname", false);
  const std::string prefix = archive_name_prefix(bounded_text(archive, "name", false));
  job.policy = prefix.empty() ? location : location + "::" + prefix;
  job.start_time = archive_time(archive, "start");
  job.end_time = archive_time(archive, "end");
}

void fill_features(const Json& archive, IngestedJob& job) {
  const Json stats = archive.member("stats");
  if (!stats.valid()) throw BadRecord("no \"stats\" object");
  const double original = bounded_number(stats, "original_size", kMaxBytes);
  const double deduplicated = bounded_number(stats, "deduplicated_size", kMaxBytes);
  job.num_files = bounded_number(stats, "nfiles", kMaxFiles);
  job.image_size_kb = ingest_kilobytes(original);
  job.kb_transferred = ingest_kilobytes(deduplicated);
  job.total_time_s = bounded_number(archive, "duration", kMaxSeconds);
  job.dedup_rate = ingest_dedup_ratio(original, deduplicated);
}

std::string archive_where(const Json& archive, const std::string& where) {
  const std::optional<std::string> name = archive.member("name").as_text();
  if (!name || name->size() > kMaxNameBytes) return where;
  return "archive " + *name + " (" + where + ")";
}

// One archive object as a job, or its reason for being skipped.
void read_archive(const Json& archive, const std::string& location, const std::string& where, JobSink& sink) {
  try {
    IngestedJob job;
    fill_identity(archive, location, job);
    fill_features(archive, job);
    sink.job(std::move(job));
  } catch (const BadRecord& bad) {
    sink.skipped(archive_where(archive, where), bad.what());
  }
}

std::string repository_location(const Json& document) {
  const std::optional<std::string> location = document.member("repository").member("location").as_text();
  if (!location || location->size() > kMaxNameBytes) return "borg";
  return target_without_password(*location);
}

// A `borg create --json` object; false when the document is not one.
bool read_create(const Json& document, const std::string& where, JobSink& sink) {
  const Json archive = document.member("archive");
  if (!archive.valid()) return false;
  read_archive(archive, repository_location(document), where, sink);
  return true;
}

bool read_info(const Json& document, const std::string& where, JobSink& sink) {
  const Json archives = document.member("archives");
  if (!archives.valid()) return false;
  const std::string location = repository_location(document);
  for (std::size_t i = 0; i < archives.array_size(); ++i) {
    read_archive(archives.element(i), location, where + ", archive " + std::to_string(i + 1), sink);
  }
  return true;
}

}  // namespace

void read_borg(std::istream& in, JobSink& sink) {
  for_each_json_document(in, sink, "borg --json", [&sink](const Json& document, const std::string& where) {
    if (read_create(document, where, sink) || read_info(document, where, sink)) return true;
    sink.skipped(where, "not borg create --json or borg info --json output (no \"archive\" or \"archives\"); the rest of the input is not read");
    return false;
  });
}

void read_borgmatic(std::istream& in, JobSink& sink) {
  for_each_json_document(in, sink, "borgmatic create --json", [&sink](const Json& document, const std::string& where) {
    if (!document.valid() || document.member("archive").valid() || document.array_size() == 0 ||
        !document.element(0).member("archive").valid()) {
      sink.skipped(where, "not borgmatic create --json output (an array of borg create objects); the rest of the input is not read");
      return false;
    }
    for (std::size_t i = 0; i < document.array_size(); ++i) {
      const std::string repository = where + ", repository " + std::to_string(i + 1);
      if (!read_create(document.element(i), repository, sink)) sink.skipped(repository, "no \"archive\" object");
    }
    return true;
  });
}
