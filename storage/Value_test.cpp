#include "storage/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

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
