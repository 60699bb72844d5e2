#include "alerts/UtcTime.h"

std::string utc_time_text(time_t t) {
  struct tm parts {};
  gmtime_r(&t, &parts);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return buffer;
}
