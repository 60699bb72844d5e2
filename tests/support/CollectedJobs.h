// CollectedJobs: a JobSink for format readers' unit tests that keeps every
// job and every skip it is given, in order, for the test to inspect.
// Header-only; the test links the ingest library.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "ingest/JobSink.h"

namespace tsanomaly_test {

class CollectedJobs : public JobSink {
 public:
  struct Skip {
    std::string where;
    std::string why;
  };

  void job(IngestedJob job) override { jobs.push_back(std::move(job)); }
  void skipped(const std::string& where, const std::string& why) override { skips.push_back({where, why}); }

  // Runs reader over text and answers the sink it filled.
  static CollectedJobs read(FormatReader reader, const std::string& text) {
    CollectedJobs sink;
    std::istringstream in(text);
    reader(in, sink);
    return sink;
  }

  std::vector<IngestedJob> jobs;
  std::vector<Skip> skips;
};

}  // namespace tsanomaly_test
