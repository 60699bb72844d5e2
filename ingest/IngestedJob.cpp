#include "ingest/IngestedJob.h"

#include <algorithm>
#include <charconv>

namespace {

// FNV-1a, 64 bits: stable across runs, machines and compilers, which a
// standard library's std::hash is not promised to be.
std::uint64_t fnv1a(const std::string& text) {
  std::uint64_t hash = 1469598103934665603ULL;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ULL;
  }
  return hash;
}

}  // namespace

std::int64_t ingest_job_number(const std::string& tool_job_id) {
  std::int64_t number = 0;
  const char* end = tool_job_id.data() + tool_job_id.size();
  auto [ptr, ec] = std::from_chars(tool_job_id.data(), end, number);
  if (ec == std::errc() && ptr == end && number >= 0 && number <= kMaxJobNumber && !tool_job_id.empty() &&
      tool_job_id[0] != '+') {
    return number;
  }
  return static_cast<std::int64_t>(fnv1a(tool_job_id) % kMaxJobNumber);
}

std::string ingest_unique_key(const IngestedJob& job) { return job.tool + ":" + job.tool_job_id; }

double ingest_dedup_ratio(double processed_bytes, double added_bytes) {
  return std::min(processed_bytes / std::max(added_bytes, 1024.0), kIngestDedupCap);
}
