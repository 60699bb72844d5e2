// Value: any text read as int (strtol, base 10, low 32 bits), double
// (strtod, bit for bit) and string; any int and double written and read back; and the
// same text stored in SQLite cells of each affinity and read back by both
// readers of the storage layer (plain and prepared), which must agree.
#include <fuzzer/FuzzedDataProvider.h>
#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>

#include "FuzzSupport.h"
#include "storage/DBAccess.h"
#include "storage/QueryResult.h"
#include "storage/Statement.h"
#include "storage/Value.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using fuzz_support::same_double;

// The reading rule, computed independently: strtol saturates at the long
// range, then only the low 32 bits are kept (two's complement).
int expected_int(const std::string& text) {
  errno = 0;
  const long wide = std::strtol(text.c_str(), nullptr, 10);
  const auto low = static_cast<uint32_t>(static_cast<uint64_t>(wide) & 0xffffffffu);
  return low <= static_cast<uint32_t>(INT_MAX) ? static_cast<int>(low)
                                               : static_cast<int>(static_cast<int64_t>(low) - (int64_t{1} << 32));
}

void check_text(const std::string& text) {
  const Value v(text);
  FUZZ_CHECK(static_cast<std::string>(v) == text, "text not kept");
  FUZZ_CHECK(v.text() == text, "text() not kept");
  const int i = v;
  const double d = v;
  FUZZ_CHECK(i == expected_int(text), "int of '%s' is %d, expected %d", text.c_str(), i, expected_int(text));
  const double expected = std::strtod(text.c_str(), nullptr);
  FUZZ_CHECK(fuzz_support::same_bits(d, expected), "double of '%s' is %.17g, strtod gives %.17g", text.c_str(), d,
             expected);
  FUZZ_CHECK(v == i, "comparison with its own int");
  FUZZ_CHECK((v == d) == !std::isnan(d), "comparison with its own double");
  FUZZ_CHECK((v == text.c_str()) == (text.find('\0') == std::string::npos), "comparison with a C string");
  FUZZ_CHECK(v == Value(text), "comparison with a copy");
  Value copy = v;
  copy = Value(std::string("x"));
  FUZZ_CHECK(v.text() == text, "copy is not independent");
}

void check_int(int n) {
  const Value v(n);
  FUZZ_CHECK(v.text() == std::to_string(n), "Value(%d) holds '%s'", n, v.text().c_str());
  FUZZ_CHECK(static_cast<int>(v) == n, "int round trip of %d", n);
  FUZZ_CHECK(static_cast<double>(v) == static_cast<double>(n), "double of Value(%d)", n);
}

void check_double(double x) {
  const Value v(x);
  const double back = v;
  char expected[64];
  std::snprintf(expected, sizeof expected, "%g", x);
  // The stream's default form is %g: 6 significant digits; inf and nan
  // are written as the C library writes them.
  FUZZ_CHECK(v.text() == expected, "Value(%.17g) holds '%s', %%g gives '%s'", x, v.text().c_str(), expected);
  if (std::isnan(x)) {
    FUZZ_CHECK(std::isnan(back), "nan does not read back as nan");
  } else if (std::isinf(x)) {
    FUZZ_CHECK(back == x, "infinity does not read back");
  } else {
    // 6 significant digits: relative error at most 5e-6 (plus one step of
    // the smallest subnormal for values near zero).
    FUZZ_CHECK(std::fabs(back - x) <= std::fabs(x) * 5.0000001e-6 + 1e-323, "%.17g read back as %.17g", x, back);
  }
}

// One connection for the whole run; every input writes and deletes one row.
DBAccess& database() {
  static std::unique_ptr<DBAccess> db = [] {
    auto opened = std::make_unique<DBAccess>(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    opened->execute_query("CREATE TABLE cells (i INTEGER, r REAL, t TEXT, n NUMERIC, b)");
    return opened;
  }();
  return *db;
}

void check_storage(const std::string& text) {
  DBAccess& db = database();
  {
    Statement insert(db.handle, "INSERT INTO cells VALUES (?, ?, ?, ?, ?)");
    for (int i = 1; i <= 5; ++i) insert.bind(i, text);
    db.execute_query_prepared(insert);
  }
  Rows plain;
  db.read_data("SELECT * FROM cells", plain);
  Rows prepared;
  {
    Statement select(db.handle, "SELECT * FROM cells");
    db.read_data_prepared(select, prepared);
  }
  db.execute_query("DELETE FROM cells");

  FUZZ_CHECK(plain.size() == 1 && prepared.size() == 1, "one row expected");
  FUZZ_CHECK(plain[0].size() == 5 && prepared[0].size() == 5, "five cells expected");
  for (const auto& [column, value] : plain[0]) {
    const Value& other = prepared[0].at(column);
    FUZZ_CHECK(value == other, "readers disagree on column %s: '%s' and '%s'", column.c_str(), value.text().c_str(),
               other.text().c_str());
  }
  // Bound text is cut at its first NUL; a TEXT cell keeps the rest exactly.
  FUZZ_CHECK(plain[0].at("t").text() == fuzz_support::c_string_part(text), "TEXT cell altered");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const int n = in.ConsumeIntegral<int>();
  double x = 0.0;
  if (in.remaining_bytes() >= sizeof x) {
    const auto raw = in.ConsumeBytes<uint8_t>(sizeof x);
    std::memcpy(&x, raw.data(), sizeof x);  // every bit pattern: NaNs, infinities, subnormals
  }
  const std::string text = in.ConsumeRemainingBytesAsString();

  check_text(text);
  check_int(n);
  check_double(x);
  check_storage(text);
  return 0;
}
