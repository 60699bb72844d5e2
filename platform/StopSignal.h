// StopSignal: the process-wide request to stop, raised by SIGTERM or SIGINT
// (or by request() in-process). The service polls it between jobs and
// between passes, so a stop finishes the job in hand and leaves the rest of
// the queue pending for the next start.
#pragma once

class StopSignal {
 public:
  // Routes SIGTERM and SIGINT here. Installed without SA_RESTART, so a
  // sleep in progress is cut short and the stop is seen at once.
  static void install();
  static bool requested();
  static void request();
  // Signal number that raised the stop, 0 when none (or an in-process request).
  static int signal_number();
  static void reset();
};
