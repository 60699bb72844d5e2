// BorgFormat: Borg's JSON output read as finished jobs. `borg create --json`
// is one archive just written; `borg info --json` lists past archives (each
// one job); borgmatic's `create --json` is an array of borg create objects,
// one per repository. Borg 1.x and 2.x both read (2.x has no compressed
// size, and nothing here needs it). Documents may follow one another in one
// stream (a log of several runs); a document that is not JSON ends the
// reading, since nothing after it can be found reliably.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

// The formats `borg` (create or info output) and `borgmatic`.
void read_borg(std::istream& in, JobSink& sink);
void read_borgmatic(std::istream& in, JobSink& sink);
