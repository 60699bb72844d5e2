// DuplicityFormat: the "[ Backup Statistics ]" block duplicity prints after
// each backup, read as one job. Duplicity has no job id: the block's
// StartTime (as printed, hundredths of a second) and the target make one.
// The target is not in duplicity's output; the duplicity-backup hook writes
// it as a line "IngestTarget URL" before duplicity's, and it names the
// policy of the blocks after it. A block reporting Errors is a failed job.
#pragma once

#include <istream>

#include "ingest/JobSink.h"

void read_duplicity(std::istream& in, JobSink& sink);
