// One database cell, held as the text SQLite rendered it, plus the record
// types every query returns. A Value converts on demand: strtol (base 10,
// truncated to 32 bits) for int, strtod for double, a copy for string.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class Value {
 public:
  Value() = default;
  Value(const std::string& s);  // NOLINT: implicit on purpose, cells are built from text
  Value(int n);                 // NOLINT
  Value(double d);              // NOLINT

  operator std::string() const { return text_; }
  operator int() const;
  operator double() const;

  bool operator==(const char* s) const;
  bool operator==(const Value& other) const { return text_ == other.text_; }
  bool operator==(int n) const { return static_cast<int>(*this) == n; }
  bool operator==(double d) const { return static_cast<double>(*this) == d; }

  const std::string& text() const { return text_; }

  // The conversions of a cell's text, for readers that hold the text
  // without a Value: to_int gives what operator int gives, to_double what
  // operator double gives, for every text, bit for bit. The second
  // to_double is for readers of many cells, who look up the locale's
  // decimal point (which strtod reads) once with decimal_point().
  static int to_int(const char* text);
  static double to_double(const char* text);
  static double to_double(const char* text, char decimal_point);
  static char decimal_point();

 private:
  std::string text_;
};

// Columns ordered by byte-wise name; indexing a missing column inserts an
// empty Value, which reads as 0, 0.0 or "".
using Row = std::map<std::string, Value>;
using Rows = std::vector<Row>;

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
