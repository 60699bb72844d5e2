// AlertLog: the alert process's log, one line per event on standard error
// (journald keeps it when the process runs as a service). Each line is
// written with one write(2), so lines of concurrent processes never mix,
// and shows any control character as an escape, so no text from the
// database or the configuration can forge a line.
#pragma once

#include <string>

namespace alert_log {

void info(const std::string& message);
void error(const std::string& message);

}  // namespace alert_log
