// The one query read from a Bacula catalog: every backup job with the names
// of its client, file set and pool, under the column names the Bacula
// readers know. Plain SQL that SQLite, PostgreSQL and MySQL all run as it is,
// so the SQLite backfill and the CSV an operator exports from the other two
// carry the same columns; the README quotes it verbatim (a test holds them
// together).
#pragma once

namespace bacula_catalog_sql {

inline constexpr const char* kBackupJobs =
    "SELECT Job.JobId AS jobid, Job.Job AS job, Job.Name AS name, Client.Name AS client, "
    "Job.Level AS level, Job.JobStatus AS jobstatus, Job.StartTime AS starttime, Job.EndTime AS endtime, "
    "Job.JobFiles AS jobfiles, Job.JobBytes AS jobbytes, Job.ReadBytes AS readbytes, "
    "COALESCE(FileSet.FileSet, '') AS fileset, COALESCE(Pool.Name, '') AS pool "
    "FROM Job JOIN Client ON Client.ClientId = Job.ClientId "
    "LEFT JOIN FileSet ON FileSet.FileSetId = Job.FileSetId "
    "LEFT JOIN Pool ON Pool.PoolId = Job.PoolId "
    "WHERE Job.Type = 'B' ORDER BY Job.StartTime, Job.JobId";

}  // namespace bacula_catalog_sql
