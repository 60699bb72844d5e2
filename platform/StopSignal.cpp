#include "platform/StopSignal.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t stop_requested = 0;
volatile std::sig_atomic_t stop_signal = 0;

extern "C" void on_stop_signal(int number) {
  stop_signal = number;
  stop_requested = 1;
}

}  // namespace

void StopSignal::install() {
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

bool StopSignal::requested() { return stop_requested != 0; }

void StopSignal::request() { stop_requested = 1; }

int StopSignal::signal_number() { return stop_signal; }

void StopSignal::reset() {
  stop_requested = 0;
  stop_signal = 0;
}
