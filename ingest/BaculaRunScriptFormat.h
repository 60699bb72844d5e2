// The bacula format: one line per finished job, as the shipped hook
// bacula-runscript writes it from a Director RunScript's substitution codes:
// tab-separated key=value fields named after the catalog's columns (jobid,
// job, name, client, level, jobstatus, starttime, endtime, jobfiles,
// jobbytes, readbytes, fileset, pool; other keys are ignored). The README's
// Ingest section gives the RunScript stanza. Streamed line by line.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

void read_bacula_runscript(std::istream& in, JobSink& sink);
