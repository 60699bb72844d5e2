// tsanomalyctl ingest: queues the finished jobs a backup tool reports (its
// own output, in one of the formats of ingest/IngestFormats) as rows of the
// detection queue, or with --as-history as accepted history.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kIngestSyntax;
extern const std::string kIngestHelp;
int run_ingest(int argc, char** argv);
