#include "util/FormatCharacter.h"

#include <gtest/gtest.h>

TEST(FormatCharacter, CodePointsAreDecodedFromEachSequenceLength) {
  EXPECT_EQ(text::code_point_at("A", 0), U'A');
  EXPECT_EQ(text::code_point_at("\xc3\xa9", 0), U'\u00e9');
  EXPECT_EQ(text::code_point_at("x\xe2\x80\xae", 1), U'\u202e');
  EXPECT_EQ(text::code_point_at("\xf3\xa0\x80\x81", 0), U'\U000E0001');
  EXPECT_FALSE(text::code_point_at("\xe2\x80", 0));
  EXPECT_FALSE(text::code_point_at("\xff", 0));
}

TEST(FormatCharacter, BidiControlsZeroWidthAndSeparatorsAreFormatCharacters) {
  for (char32_t c : {0x202A, 0x202B, 0x202C, 0x202D, 0x202E, 0x2066, 0x2067, 0x2068, 0x2069, 0x200B, 0x200C,
                     0x200D, 0x200E, 0x200F, 0x2028, 0x2029, 0xFEFF, 0x061C, 0x00AD, 0x2060, 0xE0001, 0xE007F}) {
    EXPECT_TRUE(text::is_format_character(c)) << std::hex << static_cast<unsigned>(c);
  }
}

TEST(FormatCharacter, VisibleCharactersAndSpacesAreNot) {
  for (char32_t c : {0x41, 0x20, 0xA0, 0xE9, 0x2027, 0x202F, 0x2065, 0x2070, 0xFEFE, 0xFF00, 0x1F600, 0xE0080,
                     0x10FFFF, 0x00}) {
    EXPECT_FALSE(text::is_format_character(c)) << std::hex << static_cast<unsigned>(c);
  }
}
