// ReplayOutcome: what a replayed detection pass did with the job it judged,
// read back for JudgementReplay: the details of the pass's record of the job
// and, from the in-memory copy it ran on, the outcome and its reason. Reads
// only; storage failures surface as sqlite_exception.
#pragma once

#include "service/DetectionService.h"
#include "service/PendingJob.h"
#include "replay/JudgementReplay.h"

namespace replay_outcome {

// The training set, features, eps, label, nearest cluster and feature
// ranges of the pass's record of the job.
void describe_job(DetectionService& service, const DetectionService::Job& job, int min_samples, Judgement& judgement);

// The job's outcome in the copy after the pass, and why.
void describe_outcome(DetectionService& service, Judgement& judgement);

}  // namespace replay_outcome
