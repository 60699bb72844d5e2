#include "storage/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

TEST(Value, IntsAreWrittenInPlainDecimal) {
  EXPECT_EQ(std::string(Value(1)), "1");
  EXPECT_EQ(std::string(Value(-1)), "-1");
  EXPECT_EQ(std::string(Value(0)), "0");
  EXPECT_EQ(std::string(Value(std::numeric_limits<int>::min())), "-2147483648");
}

TEST(Value, DoublesKeepSixSignificantDigits) {
  EXPECT_EQ(std::string(Value(0.1)), "0.1");
  EXPECT_EQ(std::string(Value(0.5)), "0.5");
  EXPECT_EQ(std::string(Value(1234567.0)), "1.23457e+06");
  EXPECT_EQ(std::string(Value(1e-05)), "1e-05");
  EXPECT_EQ(std::string(Value(100000.0)), "100000");
}

TEST(Value, DefaultValueIsEmptyAndReadsAsZero) {
  Value v;
  EXPECT_EQ(std::string(v), "");
  EXPECT_EQ(static_cast<int>(v), 0);
  EXPECT_EQ(static_cast<double>(v), 0.0);
}

TEST(Value, FractionTextReadsTruncatedAsIntAndWholeAsDouble) {
  Value v(std::string("3.9"));
  EXPECT_EQ(static_cast<int>(v), 3);
  EXPECT_DOUBLE_EQ(static_cast<double>(v), 3.9);
  EXPECT_EQ(static_cast<int>(Value(std::string("12.7"))), 12);
}

TEST(Value, EmptyOrNonNumericTextReadsAsZero) {
  EXPECT_EQ(static_cast<int>(Value(std::string(""))), 0);
  EXPECT_EQ(static_cast<double>(Value(std::string(""))), 0.0);
  EXPECT_EQ(static_cast<int>(Value(std::string("abc"))), 0);
  EXPECT_EQ(static_cast<double>(Value(std::string("abc"))), 0.0);
}

TEST(Value, IntParsingSkipsLeadingBlanksAndStopsAtFirstNonDigit) {
  EXPECT_EQ(static_cast<int>(Value(std::string("  42abc"))), 42);
  EXPECT_EQ(static_cast<int>(Value(std::string("-7 days"))), -7);
}

TEST(Value, IntBeyondThirtyTwoBitsKeepsLowThirtyTwoBits) {
  EXPECT_EQ(static_cast<int>(Value(std::string("4294967296"))), 0);           // 2^32
  EXPECT_EQ(static_cast<int>(Value(std::string("4294967297"))), 1);           // 2^32 + 1
  EXPECT_EQ(static_cast<int>(Value(std::string("2147483648"))), -2147483648); // 2^31
  EXPECT_EQ(static_cast<int>(Value(std::string("-2147483649"))), 2147483647);
}

TEST(Value, IntBeyondSixtyFourBitsSaturatesThenTruncates) {
  // strtol saturates at LONG_MAX / LONG_MIN; their low 32 bits are -1 and 0.
  EXPECT_EQ(static_cast<int>(Value(std::string("99999999999999999999999"))), -1);
  EXPECT_EQ(static_cast<int>(Value(std::string("-99999999999999999999999"))), 0);
}

TEST(Value, DoubleParsingAcceptsWhatStrtodAccepts) {
  EXPECT_DOUBLE_EQ(static_cast<double>(Value(std::string("1.5e3"))), 1500.0);
  EXPECT_TRUE(std::isinf(static_cast<double>(Value(std::string("inf")))));
  EXPECT_TRUE(std::isnan(static_cast<double>(Value(std::string("nan")))));
  EXPECT_DOUBLE_EQ(static_cast<double>(Value(std::string("2.5kb"))), 2.5);
}

TEST(Value, ComparesWithCStringByteForByte) {
  Value v(std::string("abc"));
  EXPECT_TRUE(v == "abc");
  EXPECT_FALSE(v == "ab");
  EXPECT_FALSE(v == "abcd");
  EXPECT_FALSE(v == "ABC");
}

TEST(Value, ComparesWithValueByText) {
  EXPECT_TRUE(Value(std::string("1.0")) == Value(std::string("1.0")));
  EXPECT_FALSE(Value(std::string("1.0")) == Value(std::string("1")));
}

TEST(Value, ComparesWithIntAfterParsing) {
  EXPECT_TRUE(Value(std::string("12.7")) == 12);
  EXPECT_TRUE(Value(std::string("")) == 0);
  EXPECT_FALSE(Value(std::string("13")) == 12);
}

TEST(Value, ComparesWithDoubleAfterParsingAndNanNeverEqual) {
  EXPECT_TRUE(Value(std::string("0.5")) == 0.5);
  EXPECT_FALSE(Value(std::string("0.6")) == 0.5);
  EXPECT_FALSE(Value(std::string("nan")) == std::nan(""));
  EXPECT_FALSE(Value(std::string("0")) == std::nan(""));
}

TEST(Value, CopiesAreIndependent) {
  Value a(std::string("x"));
  Value b = a;
  b = Value(std::string("y"));
  EXPECT_TRUE(a == "x");
  EXPECT_TRUE(b == "y");
}

TEST(Row, IndexingAMissingColumnAddsItWithAnEmptyValue) {
  Row row;
  row["A"] = Value(1);
  EXPECT_EQ(row.count("B"), 0u);
  EXPECT_EQ(static_cast<int>(row["B"]), 0);
  EXPECT_EQ(row.count("B"), 1u);
  EXPECT_EQ(std::string(row["B"]), "");
  EXPECT_EQ(row.size(), 2u);
}

TEST(Row, ColumnsAreOrderedByteWise) {
  Row row;
  row["b"] = Value(1);
  row["B"] = Value(2);
  row["a"] = Value(3);
  std::string order;
  for (const auto& [name, value] : row) order += name;
  EXPECT_EQ(order, "Bab");
}

// The conversions a reader of raw cell texts uses must give what a Value's
// conversions have always given: strtod and strtol, bit for bit.
TEST(Value, TextConversionsEqualStrtodAndStrtolBitForBit) {
  const char* const texts[] = {
      "", "-", "0", "-0", "-0.0", "0.0", "00012", "12.7", "141675384.0", "8.07", "-3.25e-5", "1e22", "1e23",
      "123456789012345", "1234567890123456", "9007199254740993", "0.1", "0.30000000000000004", "2.5kb", " 42",
      "+1", "1.", ".5", "1e", "1e+", "1E+05", "0x1A", "inf", "-Infinity", "nan", "1e400", "-1e400", "1e-400",
      "4.9406564584124654e-324", "2.2250738585072011e-308", "1.7976931348623157e308", "99999999999999999999",
      "-99999999999999999999999", "4294967296", "2147483648", "-2147483649", "0.000000000000000000001234"};
  for (const char* text : texts) {
    const double expected = std::strtod(text, nullptr);
    const double converted = Value::to_double(text);
    EXPECT_EQ(std::memcmp(&expected, &converted, sizeof expected), 0) << text;
    EXPECT_EQ(Value::to_int(text), static_cast<int>(std::strtol(text, nullptr, 10))) << text;
    const double through_value = static_cast<double>(Value(std::string(text)));
    EXPECT_EQ(std::memcmp(&expected, &through_value, sizeof expected), 0) << text;
  }
}

TEST(Value, DoubleConversionEqualsStrtodOnNumbersAsSqliteWritesThem) {
  std::mt19937_64 random(20241121u);
  for (int i = 0; i < 200000; ++i) {
    double d = 0.0;
    const std::uint64_t bits = random();
    std::memcpy(&d, &bits, sizeof d);
    if (!std::isfinite(d)) continue;
    if (i % 2 == 0) d = std::ldexp(static_cast<double>(random() % 1000000000), static_cast<int>(random() % 60) - 30);
    char text[64];
    std::snprintf(text, sizeof text, i % 3 == 0 ? "%.15g" : (i % 3 == 1 ? "%.17g" : "%.1f"), d);
    const double expected = std::strtod(text, nullptr);
    const double converted = Value::to_double(text);
    ASSERT_EQ(std::memcmp(&expected, &converted, sizeof expected), 0) << text;
  }
}

TEST(Value, DecimalPointIsTheLocalesWhichStrtodReads) {
  EXPECT_EQ(Value::decimal_point(), '.');  // the program never leaves the "C" locale
  EXPECT_EQ(Value::to_double("2.5", Value::decimal_point()), 2.5);
}
