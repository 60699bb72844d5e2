// SystemdNotify: tells the service manager how the service is doing, through
// libsystemd's sd_notify: READY=1 once started, STATUS= lines for
// `systemctl status`, WATCHDOG=1 while it is alive, STOPPING=1 on the way
// out. Outside systemd (no NOTIFY_SOCKET in the environment) every call does
// nothing. A notification that cannot be sent is dropped: it is never worth
// disturbing detection.
#pragma once

#include <string>

class SystemdNotify {
 public:
  // True when the process was started with a notification socket.
  static bool active();
  static void ready(const std::string& status);
  static void status(const std::string& status);
  // Sent only when the unit asks for a watchdog (WatchdogSec=).
  static void watchdog();
  static void stopping();
};
