#include "ingest/BaculaCsvFormat.h"

#include <optional>
#include <string_view>
#include <vector>

#include "ingest/BaculaJob.h"
#include "ingest/BoundedLines.h"
#include "util/Text.h"

namespace {

using Fields = std::vector<std::string>;

// The columns a header must name; the others are ignored.
constexpr const char* kRequiredColumns[] = {"jobid", "job", "name", "client", "level", "jobstatus", "starttime",
                                            "endtime", "jobfiles", "jobbytes", "readbytes"};

// One line's fields: separated by `separator`, a field in double quotes may
// hold the separator and "" for a quote. None when a quote is left open.
std::optional<Fields> split_line(std::string_view line, char separator) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  Fields fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
      fields.back() += '"';
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == separator && !quoted) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  if (quoted) return std::nullopt;
  return fields;
}

// The header's problem, or empty when it names every required column.
std::string header_problem(const Fields& header) {
  for (const char* column : kRequiredColumns) {
    bool found = false;
    for (const std::string& name : header) found = found || text::to_lower(name) == column;
    if (!found)
      return std::string("the header names no column ") + column +
             " (expected the output of the Bacula catalog query, with its header line)";
  }
  return "";
}

class CsvJobs {
 public:
  CsvJobs(std::istream& in, JobSink& sink) : lines_(in), sink_(sink) {}

  void read() {
    std::string line;
    while (lines_.next(line)) {
      if (lines_.too_long()) {
        sink_.skipped(lines_.where(), "longer than " + std::to_string(BoundedLines::kMaxLineBytes) + " bytes");
      } else if (line.find_first_not_of(" \t\r") == std::string::npos) {
        continue;
      } else if (header_.empty()) {
        if (!read_header(line)) return;
      } else {
        read_row(line);
      }
    }
  }

 private:
  // False when the header is not the query's: no line after it can be read.
  bool read_header(const std::string& line) {
    separator_ = line.find('\t') != std::string::npos ? '\t' : ',';
    const auto header = split_line(line, separator_);
    const std::string problem = header ? header_problem(*header) : "the header leaves a quote open";
    if (!problem.empty()) {
      sink_.skipped(lines_.where(), problem);
      return false;
    }
    for (const std::string& name : *header) header_.push_back(text::to_lower(name));
    return true;
  }

  void read_row(const std::string& line) {
    const auto fields = split_line(line, separator_);
    if (!fields) return sink_.skipped(lines_.where(), "a quote is left open");
    if (fields->size() != header_.size())
      return sink_.skipped(lines_.where(), "has " + std::to_string(fields->size()) + " fields, the header " +
                                               std::to_string(header_.size()));
    BaculaJob job;
    for (std::size_t i = 0; i < header_.size(); ++i) job[header_[i]] = (*fields)[i];
    deliver_bacula_job(job, lines_.where(), sink_);
  }

  BoundedLines lines_;
  JobSink& sink_;
  Fields header_;
  char separator_ = ',';
};

}  // namespace

void read_bacula_csv(std::istream& in, JobSink& sink) { CsvJobs(in, sink).read(); }
