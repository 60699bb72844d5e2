#include "operator/TimeText.h"

#include <cstdio>

#include "platform/LocalTime.h"

std::optional<time_t> TimeText::parse_local(const std::string& text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  int used = 0;
  const int fields = std::sscanf(text.c_str(), "%4d-%2d-%2d%n %2d:%2d%n:%2d%n", &year, &month, &day, &used, &hour,
                                 &minute, &used, &second, &used);
  if ((fields != 3 && fields != 5 && fields != 6) || static_cast<size_t>(used) != text.size()) {
    return std::nullopt;
  }
  struct tm parts {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  const time_t t = std::mktime(&parts);
  // mktime normalises 2024-02-31 into March; such a date was not real.
  if (t == static_cast<time_t>(-1) || parts.tm_mday != day || parts.tm_mon != month - 1 || hour > 23 ||
      minute > 59 || second > 59) {
    return std::nullopt;
  }
  return t;
}
