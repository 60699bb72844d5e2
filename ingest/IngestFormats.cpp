#include "ingest/IngestFormats.h"

#include "ingest/BorgFormat.h"
#include "ingest/DuplicityFormat.h"
#include "ingest/BaculaCatalogFormat.h"
#include "ingest/BaculaCsvFormat.h"
#include "ingest/BaculaRunScriptFormat.h"
#include "ingest/JsonlFormat.h"
#include "ingest/ResticFormat.h"

namespace {

// One row per format; keep the rows in the order --help should list them.
const IngestFormat kFormats[] = {
    {"jsonl", read_jsonl, false, "one JSON object per line, one job each (see the README's Ingest section)"},
    {"restic", read_restic, true, "'restic backup --json' (its summary) or 'restic snapshots --json'"},
    {"borg", read_borg, true, "borg create --json (one archive) or borg info --json (its archives), Borg 1.x or 2.x"},
    {"borgmatic", read_borgmatic, false, "borgmatic create --json: one archive per repository"},
    {"duplicity", read_duplicity, false, "duplicity's Backup Statistics block, after an IngestTarget line naming the target"},
    {"bacula", read_bacula_runscript, false, "the line the bacula-runscript hook writes for a Bacula job"},
    {"bacula-catalog", read_bacula_catalog, true, "a Bacula SQLite catalog file (bacula.db): every backup job"},
    {"bacula-csv", read_bacula_csv, true, "the Bacula catalog query's CSV from psql --csv or mysql --batch"},
};

}  // namespace

std::span<const IngestFormat> ingest_formats() { return kFormats; }

const IngestFormat* find_ingest_format(std::string_view name) {
  for (const IngestFormat& format : kFormats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}
