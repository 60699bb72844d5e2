#include "alerts/AlertLog.h"

#include <unistd.h>

#include "platform/VisibleText.h"

namespace alert_log {
namespace {

void write_line(const char* level, const std::string& message) {
  const std::string line = std::string("tsanomalyctl alert: ") + level + ": " + visible_text(message) + "\n";
  (void)!::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

void info(const std::string& message) { write_line("info", message); }
void error(const std::string& message) { write_line("error", message); }

}  // namespace alert_log
