// ServiceLoop: what the service does once it has started (the body of
// DetectionService::start): a detection pass on PassScheduler's rhythm until
// a stop is requested, with the service manager kept informed
// around the passes (ready, a status line after each pass, the watchdog from
// the one-second idle loop, stopping). Under no service manager it is the
// plain rhythm, with nothing read or sent besides the passes.
#pragma once

#include "service/DetectionService.h"
#include "service/PassScheduler.h"

class ServiceLoop {
 public:
  ServiceLoop(DetectionService& service, PassScheduler::Clock clock, PassScheduler::Sleep sleep);

  // Returns once StopSignal reports a stop request.
  void run();

 private:
  void pass();

  DetectionService& service_;
  PassScheduler::Clock clock_;
  PassScheduler::Sleep sleep_;
};
