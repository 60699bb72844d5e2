// The jsonl format: our own documented record, one JSON object per line,
// one finished job each, for tools without a reader of their own (rsync,
// vzdump, kopia through a few lines of shell). Read line by line, so a
// file of any length is streamed; the members are listed in the README's
// Ingest section.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

void read_jsonl(std::istream& in, JobSink& sink);
