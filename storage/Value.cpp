#include "storage/Value.h"

#include <langinfo.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

namespace {

template <typename T>
std::string to_stream_text(T v) {
  std::ostringstream out;
  out << v;
  return out.str();
}

}  // namespace

Value::Value(const std::string& s) : text_(s) {}
Value::Value(int n) : text_(to_stream_text(n)) {}
Value::Value(double d) : text_(to_stream_text(d)) {}

// strtol saturates at the long range; keeping only the low 32 bits of that
// (a modular conversion since C++20) is the documented truncation.
Value::operator int() const { return to_int(text_.c_str()); }

Value::operator double() const { return to_double(text_.c_str()); }

// Cells are mostly plain decimal numbers as SQLite writes them; those are
// read here directly, and every other text (blanks, a plus sign, overlong
// digit runs, anything strtol would saturate) by strtol itself. Up to 18
// digits cannot overflow a 64-bit long, and strtol stops at the same first
// non-digit.
int Value::to_int(const char* text) {
  const char* p = text;
  const bool negative = *p == '-';
  if (negative) ++p;
  if (*p < '0' || *p > '9') {
    return static_cast<int>(std::strtol(text, nullptr, 10));
  }
  long value = 0;
  int digits = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (++digits > 18) {
      return static_cast<int>(std::strtol(text, nullptr, 10));
    }
    value = value * 10 + (*p - '0');
  }
  return static_cast<int>(negative ? -value : value);
}

char Value::decimal_point() { return *nl_langinfo(RADIXCHAR); }

double Value::to_double(const char* text) { return to_double(text, decimal_point()); }

// A text that is one plain decimal number to its end ([-]digits[.digits]
// [e[+-]digits], the only forms SQLite writes for a number) is converted
// here, with the same correct rounding as strtod, so both give the same
// double; anything else, and a point that is not the locale's decimal
// point (strtod reads the locale's), is left to strtod. Up to 15
// significant digits and a power of ten up to 22 are both exact doubles, so
// one multiplication or division rounds the exact value once, correctly
// (Clinger's fast path); other numbers go to std::from_chars, which also
// rounds correctly, and those out of the double range back to strtod.
double Value::to_double(const char* text, char decimal_point) {
  static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                            1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  constexpr long kExactDigits = 15;
  constexpr long kExactPower = 22;
  const auto digit = [](char c) { return static_cast<unsigned char>(c - '0') < 10; };

  const char* p = text;
  const bool negative = *p == '-';
  if (negative) ++p;
  if (!digit(*p)) return std::strtod(text, nullptr);
  // The significant digits (leading zeros left out) are gathered into one
  // integer; past 19 of them it wraps, but then it is not used.
  std::uint64_t significand = 0;
  while (*p == '0') ++p;
  const char* first = p;
  for (; digit(*p); ++p) significand = significand * 10 + static_cast<unsigned>(*p - '0');
  long digits = p - first;
  long exponent = 0;  // of ten, by which the significand is scaled
  const bool point = *p == '.';
  if (point) {
    const char* fraction = ++p;
    if (!digit(*p)) return std::strtod(text, nullptr);
    if (digits == 0) {
      while (*p == '0') ++p;
    }
    const char* significant = p;
    for (; digit(*p); ++p) significand = significand * 10 + static_cast<unsigned>(*p - '0');
    digits += p - significant;
    exponent = -(p - fraction);
  }
  if (*p == 'e' || *p == 'E') {
    ++p;
    const bool negative_power = *p == '-';
    if (*p == '+' || *p == '-') ++p;
    if (!digit(*p)) return std::strtod(text, nullptr);
    long power = 0;
    for (; digit(*p); ++p) power = std::min(power * 10 + (*p - '0'), 100000L);
    exponent += negative_power ? -power : power;
  }
  if (*p != '\0' || (point && decimal_point != '.')) {
    return std::strtod(text, nullptr);
  }
  if (digits <= kExactDigits && exponent >= -kExactPower && exponent <= kExactPower) {
    double value = static_cast<double>(significand);
    value = exponent < 0 ? value / kPowersOfTen[-exponent] : value * kPowersOfTen[exponent];
    return negative ? -value : value;
  }
  double value = 0.0;
  const auto [end, error] = std::from_chars(text, p, value);
  if (error != std::errc() || end != p) return std::strtod(text, nullptr);
  return value;
}

bool Value::operator==(const char* s) const {
  const size_t n = std::strlen(s);
  return text_.size() == n && std::memcmp(text_.data(), s, n) == 0;
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
