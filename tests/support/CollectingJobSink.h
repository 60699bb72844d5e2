// CollectingJobSink: a JobSink for reader tests that keeps every job and
// every skipped record in the order the reader reported them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ingest/JobSink.h"

namespace tsanomaly_test {

class CollectingJobSink : public JobSink {
 public:
  void job(IngestedJob job) override { jobs.push_back(std::move(job)); }
  void skipped(const std::string& where, const std::string& why) override { skips.emplace_back(where, why); }

  std::vector<IngestedJob> jobs;
  std::vector<std::pair<std::string, std::string>> skips;  // where, why
};

}  // namespace tsanomaly_test
