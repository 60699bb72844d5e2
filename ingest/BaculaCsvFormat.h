// The bacula-csv format: the output of the catalog query
// (schema/BaculaCatalogSql.h) run on a PostgreSQL or MySQL catalog, a
// header line naming the columns, then one line per job: `psql --csv`
// (comma-separated, RFC 4180 quoting) or `mysql --batch --raw`
// (tab-separated). Streamed line by line; a list of past jobs.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

void read_bacula_csv(std::istream& in, JobSink& sink);
