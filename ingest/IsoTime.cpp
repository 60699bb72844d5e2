#include "ingest/IsoTime.h"

#include <cctype>
#include <ctime>
#include <string>

namespace {

// Exactly `digits` decimal digits at text[at], advancing at.
std::optional<int> digits_at(std::string_view text, std::size_t& at, std::size_t digits) {
  if (at + digits > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    const char c = text[at + i];
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  at += digits;
  return value;
}

bool expect(std::string_view text, std::size_t& at, char c) {
  if (at >= text.size() || (text[at] != c && !(c == 'T' && text[at] == ' '))) return false;
  ++at;
  return true;
}

// ".123456789": any number of digits, as a fraction of a second.
double fraction_at(std::string_view text, std::size_t& at) {
  if (at >= text.size() || text[at] != '.') return 0;
  double fraction = 0;
  double scale = 0.1;
  for (++at; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at, scale /= 10) {
    fraction += (text[at] - '0') * scale;
  }
  return fraction;
}

// The zone's offset east of UTC in seconds into offset, and whether the
// text has a zone at all; false when what follows the time is no zone.
bool zone_at(std::string_view text, std::size_t& at, int& offset, bool& zoned) {
  zoned = at < text.size();
  offset = 0;
  if (!zoned) return true;
  if (text[at] == 'Z') return at + 1 == text.size();
  if (text[at] != '+' && text[at] != '-') return false;
  const int sign = text[at++] == '-' ? -1 : 1;
  const auto hours = digits_at(text, at, 2);
  if (!hours || !expect(text, at, ':')) return false;
  const auto minutes = digits_at(text, at, 2);
  if (!minutes || at != text.size()) return false;
  offset = sign * (*hours * 3600 + *minutes * 60);
  return true;
}

}  // namespace

std::optional<double> iso_time_seconds(std::string_view text) {
  std::size_t at = 0;
  std::tm fields{};
  const auto year = digits_at(text, at, 4);
  const bool date = year && expect(text, at, '-');
  const auto month = date ? digits_at(text, at, 2) : std::nullopt;
  const auto day = month && expect(text, at, '-') ? digits_at(text, at, 2) : std::nullopt;
  const auto hour = day && expect(text, at, 'T') ? digits_at(text, at, 2) : std::nullopt;
  const auto minute = hour && expect(text, at, ':') ? digits_at(text, at, 2) : std::nullopt;
  const auto second = minute && expect(text, at, ':') ? digits_at(text, at, 2) : std::nullopt;
  if (!second || *month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 || *second > 60) {
    return std::nullopt;
  }
  const double fraction = fraction_at(text, at);
  int offset = 0;
  bool zoned = false;
  if (!zone_at(text, at, offset, zoned)) return std::nullopt;
  fields.tm_year = *year - 1900;
  fields.tm_mon = *month - 1;
  fields.tm_mday = *day;
  fields.tm_hour = *hour;
  fields.tm_min = *minute;
  fields.tm_sec = *second;
  fields.tm_isdst = -1;
  const std::time_t seconds = zoned ? timegm(&fields) - offset : std::mktime(&fields);
  return static_cast<double>(seconds) + fraction;
}
