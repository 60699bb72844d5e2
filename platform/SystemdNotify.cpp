#include "platform/SystemdNotify.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>

#include "platform/VisibleText.h"

namespace {

// A status line is one line of text, whatever names it carries.
std::string status_line(const std::string& status) { return "STATUS=" + visible_text(status); }

}  // namespace

bool SystemdNotify::active() {
  const char* socket = std::getenv("NOTIFY_SOCKET");
  return socket != nullptr && *socket != '\0';
}

void SystemdNotify::ready(const std::string& status) { sd_notify(0, ("READY=1\n" + status_line(status)).c_str()); }

void SystemdNotify::status(const std::string& status) { sd_notify(0, status_line(status).c_str()); }

void SystemdNotify::watchdog() {
  uint64_t interval = 0;
  if (sd_watchdog_enabled(0, &interval) > 0) sd_notify(0, "WATCHDOG=1");
}

void SystemdNotify::stopping() { sd_notify(0, "STOPPING=1"); }
