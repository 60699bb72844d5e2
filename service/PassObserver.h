// PassObserver: an onlooker of one DetectionService's passes. While set
// (DetectionService::set_observer), the service hands it the lines it would
// log and the text it would print, instead of writing them, and shows it
// every job it decided. Per service instance, so services on several threads
// never share it. The service does not own it; calls must not throw.
#pragma once

#include <string>

#include "service/DetectionService.h"

class PassObserver {
 public:
  virtual ~PassObserver() = default;
  // A message of the pass's log, at its level, escaped as a line carries it.
  virtual void logged(int level, const std::string& message) = 0;
  // Text the pass would print on standard output.
  virtual void printed(const std::string& text) = 0;
  // A job the pass decided or left pending (service/PendingJob.h), just
  // before it is released.
  virtual void decided(const DetectionService::Job& job) = 0;
};
