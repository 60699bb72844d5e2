#include "ingest/DuplicityFormat.h"

#include <charconv>
#include <cmath>
#include <map>
#include <optional>

#include "ingest/BadRecord.h"
#include "ingest/BoundedLines.h"
#include "ingest/TargetName.h"
#include "util/Text.h"

namespace {

constexpr std::string_view kTargetLine = "IngestTarget ";
constexpr const char* kCutBlock = "the block ends before its closing line (a cut output?)";
constexpr std::size_t kMaxTargetBytes = 1024;
constexpr std::size_t kMaxStatistics = 64;  // duplicity prints 16

// Bounds far above any real backup that keep hostile values from the
// detector's arithmetic (bytes, files, seconds; times until the year 9999).
constexpr double kMaxBytes = 1e18;
constexpr double kMaxFiles = 1e12;
constexpr double kMaxSeconds = 366.0 * 86400;
constexpr double kMaxEpoch = 253402300799.0;

bool is_block_start(std::string_view line) {
  return line.starts_with("----") && line.find("[ Backup Statistics ]") != std::string_view::npos;
}

bool is_block_end(std::string_view line) { return !line.empty() && line.find_first_not_of('-') == std::string_view::npos; }

// One statistics block: each line's first word and the number after it, as
// printed ("SourceFileSize 1036864 (1013 KB)" gives SourceFileSize 1036864).
class StatisticsBlock {
 public:
  explicit StatisticsBlock(std::string where) : where_(std::move(where)) {}

  void add(std::string_view line) {
    const std::size_t blank = line.find(' ');
    const std::string key(line.substr(0, blank));
    if (blank == std::string_view::npos || values_.size() >= kMaxStatistics) return;
    const std::string_view rest = line.substr(blank + 1);
    values_.emplace(key, std::string(rest.substr(0, rest.find(' '))));
  }
  void fail(std::string why) {
    if (failure_.empty()) failure_ = std::move(why);
  }

  const std::string& where() const { return where_; }
  const std::string& failure() const { return failure_; }
  bool has(const std::string& key) const { return values_.count(key) != 0; }
  const std::string& text(const std::string& key) const {
    const auto found = values_.find(key);
    if (found == values_.end()) throw BadRecord("no " + key);
    return found->second;
  }
  double number(const std::string& key, double max) const {
    const std::string& value = text(key);
    double number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size()) throw BadRecord(key + " is not a number");
    if (!std::isfinite(number) || number < 0 || number > max) throw BadRecord(key + " is out of range");
    return number;
  }

 private:
  std::string where_;
  std::map<std::string, std::string> values_;
  std::string failure_;
};

IngestedJob block_job(const StatisticsBlock& block, const std::string& target) {
  const double errors = block.number("Errors", kMaxFiles);
  if (errors > 0) throw BadRecord("a failed backup: duplicity counted " + block.text("Errors") + " errors");
  IngestedJob job;
  job.tool = "duplicity";
  job.tool_job_id = block.text("StartTime") + (target.empty() ? "" : "@" + target);
  job.policy = target;
  job.start_time = static_cast<std::int64_t>(block.number("StartTime", kMaxEpoch));
  job.end_time = static_cast<std::int64_t>(block.number("EndTime", kMaxEpoch));
  const double source_bytes = block.number("SourceFileSize", kMaxBytes);
  // What the backup wrote to the target, compressed and encrypted; older
  // releases without the total give the uncompressed delta.
  const std::string written = block.has("TotalDestinationSizeChange") ? "TotalDestinationSizeChange" : "RawDeltaSize";
  const double written_bytes = block.number(written, kMaxBytes);
  job.num_files = block.number("SourceFiles", kMaxFiles);
  job.image_size_kb = ingest_kilobytes(source_bytes);
  job.kb_transferred = ingest_kilobytes(written_bytes);
  job.total_time_s = block.number("ElapsedTime", kMaxSeconds);
  job.dedup_rate = ingest_dedup_ratio(source_bytes, written_bytes);
  return job;
}

void deliver(const StatisticsBlock& block, const std::string& target, JobSink& sink) {
  if (!block.failure().empty()) return sink.skipped(block.where(), block.failure());
  try {
    sink.job(block_job(block, target));
  } catch (const BadRecord& bad) {
    sink.skipped(block.where(), bad.what());
  }
}

// The target a line of the hook names, without a password; none when the
// line is not one.
std::optional<std::string> target_of(std::string_view line, const std::string& where, JobSink& sink) {
  if (!line.starts_with(kTargetLine)) return std::nullopt;
  const std::string_view target = line.substr(kTargetLine.size());
  if (target.size() > kMaxTargetBytes || target.find('\0') != std::string_view::npos) {
    sink.skipped(where, "the target is longer than 1024 bytes or holds a NUL; the blocks after it have none");
    return std::string();
  }
  return text::as_utf8(target_without_password(target));
}

}  // namespace

void read_duplicity(std::istream& in, JobSink& sink) {
  BoundedLines lines(in);
  std::string line, target;
  std::optional<StatisticsBlock> block;
  std::size_t blocks = 0;
  while (lines.next(line)) {
    if (block && is_block_start(line)) {
      sink.skipped(block->where(), kCutBlock);
      block.reset();
    }
    if (block) {
      if (lines.too_long()) block->fail(lines.where() + " is too long to be a statistic");
      if (!is_block_end(line)) {
        block->add(line);
        continue;
      }
      deliver(*block, target, sink);
      block.reset();
    } else if (is_block_start(line)) {
      block.emplace("statistics block " + std::to_string(++blocks) + " (" + lines.where() + ")");
    } else if (auto named = target_of(line, lines.where(), sink)) {
      target = std::move(*named);
    }
  }
  if (block) sink.skipped(block->where(), kCutBlock);
  if (blocks == 0) sink.skipped("input", "no duplicity \"[ Backup Statistics ]\" block");
}
