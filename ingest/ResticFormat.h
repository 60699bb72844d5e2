// The restic format: either the JSON lines of `restic backup --json` (only
// its "summary" message makes a job; a run without one failed) or the array
// of `restic snapshots --json` (a snapshot makes a job only when it carries
// the "summary" object that restic records since 0.17). Which one is told
// by the first character. The README's Ingest section maps the fields.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

void read_restic(std::istream& in, JobSink& sink);
