#include "storage/Value.h"

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
Value::operator int() const {
  return static_cast<int>(std::strtol(text_.c_str(), nullptr, 10));
}

Value::operator double() const { return std::strtod(text_.c_str(), nullptr); }

bool Value::operator==(const char* s) const {
  const size_t n = std::strlen(s);
  return text_.size() == n && std::memcmp(text_.data(), s, n) == 0;
}

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
