#include "service/PassScheduler.h"

#include <utility>

PassScheduler::PassScheduler(Clock clock, Sleep sleep, StopRequested stop_requested)
    : clock_(std::move(clock)), sleep_(std::move(sleep)), stop_requested_(std::move(stop_requested)) {}

void PassScheduler::run(const std::function<void()>& pass) const {
  time_t last_pass = clock_();
  while (!stop_requested_()) {
    if (difftime(clock_(), last_pass) >= kIntervalSeconds) {
      pass();
      last_pass = clock_();
    }
    sleep_(kPollSeconds);
  }
}
