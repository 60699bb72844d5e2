#include "ingest/IngestFormats.h"

#include "ingest/BorgFormat.h"
#include "ingest/DuplicityFormat.h"
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
};

}  // namespace

std::span<const IngestFormat> ingest_formats() { return kFormats; }

const IngestFormat* find_ingest_format(std::string_view name) {
  for (const IngestFormat& format : kFormats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}
