#include "service/ServiceLoop.h"

#include <chrono>
#include <string>
#include <utility>

#include "service/PassStatus.h"
#include "platform/StopSignal.h"
#include "platform/SystemdNotify.h"

ServiceLoop::ServiceLoop(DetectionService& service, PassScheduler::Clock clock, PassScheduler::Sleep sleep)
    : service_(service), clock_(std::move(clock)), sleep_(std::move(sleep)) {}

void ServiceLoop::run() {
  SystemdNotify::ready("Waiting for the first pass (one every " +
                       std::to_string(static_cast<int>(PassScheduler::kIntervalSeconds)) + " s)");
  const auto idle = [this](unsigned seconds) {
    SystemdNotify::watchdog();
    sleep_(seconds);
  };
  PassScheduler(clock_, idle, [] { return StopSignal::requested(); }).run([this] { pass(); });
  SystemdNotify::stopping();
}

void ServiceLoop::pass() {
  if (!SystemdNotify::active()) {
    service_.do_detection();
    return;
  }
  const PassStatus status = PassStatus::before_pass(service_.database());
  const auto began = std::chrono::steady_clock::now();
  service_.do_detection();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  SystemdNotify::status(status.after_pass(service_.database(), clock_(), took.count()));
}
