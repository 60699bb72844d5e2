// The bacula-catalog format: a Bacula SQLite catalog file (bacula.db) read
// for a backfill, every backup job of its Job table through the one catalog
// query (schema/BaculaCatalogSql.h); a list of past jobs. The file is
// foreign and hostile: it is read whole from the stream (at most
// kMaxBaculaCatalogBytes) into a private read-only in-memory copy, so
// nothing is ever written to or opened beside the original, and the copy is
// queried with SQLite's defensive settings. A stream that is not such a
// catalog is reported to the sink as one skipped record.
#pragma once

#include <cstddef>
#include <istream>

#include "ingest/JobSink.h"

// A catalog larger than this is exported as CSV instead (see the README).
inline constexpr std::size_t kMaxBaculaCatalogBytes = std::size_t{1} << 30;

void read_bacula_catalog(std::istream& in, JobSink& sink);
