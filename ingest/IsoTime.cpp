#include "ingest/IsoTime.h"

#include <ctime>
#include <string>

namespace {

// The digits of text[at, at + count) as a number; none unless all are digits.
std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

bool has(std::string_view text, std::size_t at, char expected) { return at < text.size() && text[at] == expected; }

// Days from 1970-01-01 to the given civil date (proleptic Gregorian), after
// Howard Hinnant's days_from_civil: exact without any time zone.
std::int64_t days_from_civil(int year, int month, int day) {
  year -= month <= 2 ? 1 : 0;
  const int era = year / 400;
  const int year_of_era = year - era * 400;
  const int day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return static_cast<std::int64_t>(era) * 146097 + day_of_era - 719468;
}

int days_in_month(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

struct CivilTime {
  int year, month, day, hour, minute, second;
};

std::optional<CivilTime> civil_time(std::string_view text) {
  const auto year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
  const auto hour = digits(text, 11, 2), minute = digits(text, 14, 2), second = digits(text, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
  if (!has(text, 4, '-') || !has(text, 7, '-') || !(has(text, 10, 'T') || has(text, 10, ' ')) ||
      !has(text, 13, ':') || !has(text, 16, ':'))
    return std::nullopt;
  if (*year < 1970 || *month < 1 || *month > 12 || *day < 1 || *day > days_in_month(*year, *month) ||
      *hour > 23 || *minute > 59 || *second > 60)
    return std::nullopt;
  return CivilTime{*year, *month, *day, *hour, *minute, *second};
}

std::optional<std::int64_t> local_epoch(const CivilTime& civil) {
  std::tm broken{};
  broken.tm_year = civil.year - 1900;
  broken.tm_mon = civil.month - 1;
  broken.tm_mday = civil.day;
  broken.tm_hour = civil.hour;
  broken.tm_min = civil.minute;
  broken.tm_sec = civil.second;
  broken.tm_isdst = -1;  // the zone's own rule for that date; an hour repeated at the autumn change is ambiguous
  const std::time_t epoch = std::mktime(&broken);
  if (epoch == static_cast<std::time_t>(-1)) return std::nullopt;
  return static_cast<std::int64_t>(epoch);
}

// Seconds east of UTC for "Z", "+HH:MM" or "-HH:MM" at text[at..], which must
// end the text; none for anything else.
std::optional<int> zone_offset(std::string_view text, std::size_t at) {
  if (text.substr(at) == "Z") return 0;
  if (text.size() != at + 6 || !(text[at] == '+' || text[at] == '-') || text[at + 3] != ':') return std::nullopt;
  const auto hours = digits(text, at + 1, 2), minutes = digits(text, at + 4, 2);
  if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  const int offset = *hours * 3600 + *minutes * 60;
  return text[at] == '-' ? -offset : offset;
}

}  // namespace

std::optional<std::int64_t> iso_time_epoch(std::string_view text) {
  const std::optional<CivilTime> civil = civil_time(text);
  if (!civil) return std::nullopt;
  std::size_t at = 19;
  if (has(text, at, '.')) {
    ++at;
    const std::size_t first_digit = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    if (at == first_digit) return std::nullopt;
  }
  if (at == text.size()) return local_epoch(*civil);
  const std::optional<int> offset = zone_offset(text, at);
  if (!offset) return std::nullopt;
  const std::int64_t days = days_from_civil(civil->year, civil->month, civil->day);
  return days * 86400 + civil->hour * 3600 + civil->minute * 60 + civil->second - *offset;
}
