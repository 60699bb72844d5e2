// IngestFormats: the table of the backup tools' outputs that `tsanomalyctl
// ingest` reads, one row per format. The verb, its --help and the manual read
// it; a new format is one reader and one row here. The table is static and
// never changes while the program runs.
#pragma once

#include <span>
#include <string_view>

#include "ingest/JobSink.h"

struct IngestFormat {
  const char* name;  // the --format value
  FormatReader read;
  // A list of past jobs (a repository's snapshots, a catalogue): the core
  // queues them oldest first, so the next pass judges each against those
  // before it. Otherwise jobs are queued in the order the output gives them.
  bool lists_past_jobs;
  const char* help;  // one line for --help and the manual
};

// Every format, in the order --help lists them.
std::span<const IngestFormat> ingest_formats();

// nullptr when no format has that name.
const IngestFormat* find_ingest_format(std::string_view name);
