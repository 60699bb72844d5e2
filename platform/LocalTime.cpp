#include "platform/LocalTime.h"

struct tm* ts_localtime(const time_t* t, struct tm* result) { return localtime_r(t, result); }

std::string local_time_text(time_t t, const char* format) {
  struct tm parts {};
  if (ts_localtime(&t, &parts) == nullptr) return "?";
  char text[64];
  if (std::strftime(text, sizeof text, format, &parts) == 0) return "?";
  return text;
}
