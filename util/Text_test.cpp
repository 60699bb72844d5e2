#include "util/Text.h"

#include <gtest/gtest.h>

namespace {

TEST(TextTest, ToLowerChangesOnlyAsciiLetters) {
  EXPECT_EQ(text::to_lower("ClientA-01_X"), "clienta-01_x");
  EXPECT_EQ(text::to_lower("\xC3\x84RGER"), "\xC3\x84rger");  // the UTF-8 bytes of the A umlaut stay
  EXPECT_EQ(text::to_lower(""), "");
}

TEST(TextTest, WellFormedSequencesHaveTheirLength) {
  EXPECT_EQ(text::utf8_sequence_length("a", 0), 1u);
  EXPECT_EQ(text::utf8_sequence_length("\xC3\xA9", 0), 2u);
  EXPECT_EQ(text::utf8_sequence_length("\xE2\x82\xAC", 0), 3u);
  EXPECT_EQ(text::utf8_sequence_length("\xF0\x9F\x98\x80", 0), 4u);
  EXPECT_EQ(text::utf8_sequence_length("\xF4\x8F\xBF\xBF", 0), 4u);  // U+10FFFF, the last code point
}

TEST(TextTest, MalformedSequencesHaveLengthZero) {
  EXPECT_EQ(text::utf8_sequence_length("\x80", 0), 0u);              // stray continuation byte
  EXPECT_EQ(text::utf8_sequence_length("\xC3", 0), 0u);              // cut short
  EXPECT_EQ(text::utf8_sequence_length("\xC0\xAF", 0), 0u);          // overlong '/'
  EXPECT_EQ(text::utf8_sequence_length("\xE0\x80\xAF", 0), 0u);      // overlong three-byte form
  EXPECT_EQ(text::utf8_sequence_length("\xED\xA0\x80", 0), 0u);      // surrogate
  EXPECT_EQ(text::utf8_sequence_length("\xF4\x90\x80\x80", 0), 0u);  // past U+10FFFF
  EXPECT_EQ(text::utf8_sequence_length("\xFF", 0), 0u);
  EXPECT_EQ(text::utf8_sequence_length("a", 1), 0u);                 // past the end
}

TEST(TextTest, AsUtf8ReplacesEachBadByteAndKeepsTheRest) {
  EXPECT_EQ(text::as_utf8("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(text::as_utf8("caf\xE9"), "caf\xEF\xBF\xBD");                     // Latin-1 e acute
  EXPECT_EQ(text::as_utf8("\xC3\x28x"), "\xEF\xBF\xBD(x");                    // cut sequence: one replacement
  EXPECT_EQ(text::as_utf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(TextTest, WholeNumbersAreTakenOnlyWholeAndInRange) {
  EXPECT_EQ(text::whole_number("42", 0, 100), 42);
  EXPECT_EQ(text::whole_number("-7", -10, 10), -7);
  EXPECT_EQ(text::whole_number("100", 0, 100), 100);
  EXPECT_EQ(text::whole_number(" 4", 0, 100), 4);
  for (const char* bad : {"", "101", "-1", "4x", "x4", "4.0", "99999999999999999999"}) {
    EXPECT_EQ(text::whole_number(bad, 0, 100), std::nullopt) << bad;
  }
}

}  // namespace

TEST(TextTest, CappedKeepsShortTextAndCutsLongTextBeforeASequence) {
  EXPECT_EQ(text::capped("client", 6), "client");
  EXPECT_EQ(text::capped("clients", 6), "client\xE2\x80\xA6");
  // "é" is two bytes: a cut inside it keeps neither.
  EXPECT_EQ(text::capped("ab\xC3\xA9", 3), "ab\xE2\x80\xA6");
  EXPECT_EQ(text::capped(std::string(100000, 'x'), 1024).size(), 1024u + 3u);
}
