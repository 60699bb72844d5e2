// SvgChartText: how numbers and times are written on a chart, shared by
// SvgChart's drawing and its axes. Private to those two units.
#pragma once

#include <cstdio>
#include <ctime>
#include <string>

namespace svg_chart_text {

inline std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// "12345.6" -> "12,345.6"; a leading minus sign stays in front.
inline std::string grouped(const std::string& plain) {
  const std::size_t start = (!plain.empty() && plain[0] == '-') ? 1 : 0;
  std::size_t end = plain.find('.');
  if (end == std::string::npos) end = plain.size();
  std::string out = plain.substr(0, start);
  for (std::size_t at = start; at < end; ++at) {
    if (at > start && (end - at) % 3 == 0) out += ',';
    out += plain[at];
  }
  out += plain.substr(end);
  return out;
}

// Broken-down local time; all zero when t cannot be represented.
inline struct tm local_parts(time_t t) {
  struct tm parts {};
  if (localtime_r(&t, &parts) == nullptr) parts = {};
  return parts;
}

}  // namespace svg_chart_text
