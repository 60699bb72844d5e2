// IngestRun: one `tsanomalyctl ingest`: reads each input in its format,
// completes every job with the operator's options and the defaults, checks
// it, and hands it to the QueueWriter; a list of past jobs is handed over
// oldest first. Every record not queued (a failed job, bad input, an empty
// input) is counted and named on the error stream, escaped for a terminal.
// Throws what the writer throws (the database cannot be written).
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "ingest/IngestFormats.h"
#include "ingest/IngestOptions.h"
#include "ingest/JobSink.h"
#include "ingest/QueueWriter.h"

class IngestRun : public JobSink {
 public:
  IngestRun(const IngestFormat& format, const IngestOptions& options, QueueWriter& writer, std::ostream& errors);

  // Reads one input to its end; source names it in messages ("-" for
  // standard input).
  void read(std::istream& in, const std::string& source);
  long long skipped_count() const { return skipped_; }

  void job(IngestedJob job) override;
  void skipped(const std::string& where, const std::string& why) override;

 private:
  const IngestFormat& format_;
  const IngestOptions& options_;
  QueueWriter& writer_;
  std::ostream& errors_;
  std::string source_;
  std::vector<IngestedJob> past_jobs_;  // a list's jobs, until it is read whole
  long long records_ = 0;               // of the current input
  long long skipped_ = 0;
};

// What is wrong with a completed job, or empty when it may be queued: every
// name printable UTF-8 of bounded length, every feature finite, not negative
// and within bounds, the times ordered and plausible.
std::string ingest_job_problem(const IngestedJob& job);

// The job with the options applied over it, the defaults filling what it
// still lacks, and its times complete (start and end).
void complete_ingested_job(IngestedJob& job, const IngestOptions& options);
