// PassScheduler: the service's rhythm. The first pass runs once the interval
// has passed since start-up, each later one once it has passed since the
// previous pass ended, however long that pass took; in between it polls once
// a second. Clock and sleep are injected so the rhythm can be tested without
// waiting for it.
#pragma once

#include <ctime>
#include <functional>

class PassScheduler {
 public:
  using Clock = std::function<time_t()>;
  using Sleep = std::function<void(unsigned seconds)>;
  using StopRequested = std::function<bool()>;

  static constexpr double kIntervalSeconds = 120.0;
  static constexpr unsigned kPollSeconds = 1;

  PassScheduler(Clock clock, Sleep sleep, StopRequested stop_requested);

  // Runs pass on the rhythm until stop_requested() answers true.
  void run(const std::function<void()>& pass) const;

 private:
  Clock clock_;
  Sleep sleep_;
  StopRequested stop_requested_;
};
