#include "ingest/BaculaRunScriptFormat.h"

#include <string_view>

#include "ingest/BaculaJob.h"
#include "ingest/BoundedLines.h"

namespace {

bool is_blank(std::string_view line) { return line.find_first_not_of(" \t\r") == std::string_view::npos; }

// The line's fields into job; the problem, or empty when every field is a
// key=value pair and no key comes twice.
std::string split_fields(std::string_view line, BaculaJob& job) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  std::size_t number = 0;
  while (!line.empty()) {
    ++number;
    const std::size_t tab = line.find('\t');
    const std::string_view field = line.substr(0, tab);
    line = tab == std::string_view::npos ? std::string_view() : line.substr(tab + 1);
    const std::size_t equals = field.find('=');
    if (equals == 0 || equals == std::string_view::npos)
      return "field " + std::to_string(number) + " is not key=value (is this the output of a Bacula RunScript?)";
    const auto [it, added] = job.emplace(std::string(field.substr(0, equals)), std::string(field.substr(equals + 1)));
    if (!added) return "key " + it->first.substr(0, 64) + " comes twice";
  }
  return "";
}

}  // namespace

void read_bacula_runscript(std::istream& in, JobSink& sink) {
  BoundedLines lines(in);
  std::string line;
  while (lines.next(line)) {
    if (lines.too_long()) {
      sink.skipped(lines.where(), "longer than " + std::to_string(BoundedLines::kMaxLineBytes) + " bytes");
      continue;
    }
    if (is_blank(line)) continue;
    BaculaJob job;
    if (const std::string problem = split_fields(line, job); !problem.empty()) {
      sink.skipped(lines.where(), problem);
      continue;
    }
    deliver_bacula_job(job, lines.where(), sink);
  }
}
