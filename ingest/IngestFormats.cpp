#include "ingest/IngestFormats.h"

#include "ingest/JsonlFormat.h"

namespace {

// One row per format; keep the rows in the order --help should list them.
const IngestFormat kFormats[] = {
    {"jsonl", read_jsonl, false, "one JSON object per line, one job each (see the README's Ingest section)"},
};

}  // namespace

std::span<const IngestFormat> ingest_formats() { return kFormats; }

const IngestFormat* find_ingest_format(std::string_view name) {
  for (const IngestFormat& format : kFormats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}
