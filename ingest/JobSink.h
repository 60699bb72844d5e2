// JobSink: where a format reader sends what it finds in the tool's output,
// record by record, so a long history is streamed rather than held. A reader
// never writes the database itself and never stops at a bad record: it
// reports it and goes on with the next.
#pragma once

#include <istream>
#include <string>

#include "ingest/IngestedJob.h"

class JobSink {
 public:
  virtual ~JobSink() = default;
  // A finished job, to be queued.
  virtual void job(IngestedJob job) = 0;
  // A record that is not queued: a failed job, or input that cannot be read.
  // `where` names it for the operator ("line 12", "snapshot 4f2a1c9e"), `why`
  // says what was wrong. Both are the tool's bytes and must be escaped
  // before they are shown.
  virtual void skipped(const std::string& where, const std::string& why) = 0;
};

// A format reader: reads the whole stream and reports every record to the
// sink. Throws only when the stream itself fails.
using FormatReader = void (*)(std::istream& in, JobSink& sink);
