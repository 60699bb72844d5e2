// BaculaJob: one Bacula job as the catalog's own column names and text
// values, the vocabulary that the RunScript line, the catalog's CSV and the
// SQLite catalog share, and the one mapping of such a job onto IngestedJob.
// A job that cannot be queued (failed in Bacula, or values that cannot be
// trusted) goes to the sink's skipped() with the reason; nothing throws.
#pragma once

#include <map>
#include <string>

#include "ingest/JobSink.h"

// Column name (lower case: jobid, job, name, client, level, jobstatus,
// starttime, endtime, jobfiles, jobbytes, readbytes, fileset, pool) to text.
using BaculaJob = std::map<std::string, std::string>;

// The tool name in every Bacula job's queue key.
inline constexpr const char* kBaculaTool = "bacula";

// Longest field value accepted; Bacula's own names stop at 127 bytes.
inline constexpr std::size_t kBaculaMaxFieldBytes = 1024;

// Maps the job and sends it to the sink: job() for a job Bacula terminated
// OK (status T, or "OK" as the RunScript's %e writes it), skipped() naming
// `where` and the job otherwise.
void deliver_bacula_job(const BaculaJob& fields, const std::string& where, JobSink& sink);
