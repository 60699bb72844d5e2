// Line reading with a bound: lines at the bound pass, longer ones are
// dropped whole and flagged, and counting goes on across them.
#include "ingest/BoundedLines.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

TEST(BoundedLines, LineAtTheBoundPassesAndLongerIsFlagged) {
  std::istringstream in(std::string(8, 'a') + "\n" + std::string(9, 'b') + "\n" + std::string(100, 'c') + "\nd");
  BoundedLines lines(in, 8);
  std::string line;
  ASSERT_TRUE(lines.next(line));
  EXPECT_EQ(line, std::string(8, 'a'));
  EXPECT_FALSE(lines.too_long());
  ASSERT_TRUE(lines.next(line));
  EXPECT_TRUE(lines.too_long());
  EXPECT_TRUE(line.empty());
  ASSERT_TRUE(lines.next(line));
  EXPECT_TRUE(lines.too_long());
  EXPECT_EQ(lines.where(), "line 3");
  ASSERT_TRUE(lines.next(line));
  EXPECT_FALSE(lines.too_long());
  EXPECT_EQ(line, "d");
  EXPECT_EQ(lines.number(), 4u);
  EXPECT_FALSE(lines.next(line));
}

TEST(BoundedLines, OverlongLastLineWithoutNewlineIsFlagged) {
  std::istringstream in("ok\n" + std::string(50, 'x'));
  BoundedLines lines(in, 10);
  std::string line;
  ASSERT_TRUE(lines.next(line));
  ASSERT_TRUE(lines.next(line));
  EXPECT_TRUE(lines.too_long());
  EXPECT_FALSE(lines.next(line));
}

TEST(BoundedLines, KeepsNulBytesForTheFormatToRefuse) {
  std::istringstream in(std::string("a\0b\n", 4));
  BoundedLines lines(in, 10);
  std::string line;
  ASSERT_TRUE(lines.next(line));
  EXPECT_EQ(line, std::string("a\0b", 3));
}

TEST(BoundedLines, EmptyInputHasNoLine) {
  std::istringstream in("");
  BoundedLines lines(in);
  std::string line;
  EXPECT_FALSE(lines.next(line));
  EXPECT_EQ(lines.number(), 0u);
}
