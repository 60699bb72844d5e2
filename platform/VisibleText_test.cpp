#include "platform/VisibleText.h"
#include "util/Text.h"

#include <gtest/gtest.h>

TEST(VisibleText, PrintableAsciiAndUtf8AreUnchanged) {
  EXPECT_EQ(visible_text("client-01 %s \\n 'quoted'"), "client-01 %s \\n 'quoted'");
  EXPECT_EQ(visible_text("Kundé-客户-😀"), "Kundé-客户-😀");
  EXPECT_EQ(visible_text(""), "");
}

TEST(VisibleText, LineBreaksAndTabsBecomeTheirEscapes) {
  EXPECT_EQ(visible_text("a\nb\r\nc\td"), "a\\nb\\r\\nc\\td");
}

TEST(VisibleText, OtherControlCharactersBecomeHexEscapes) {
  EXPECT_EQ(visible_text("\x1b]0;owned\x07\x1b[2J"), "\\x1b]0;owned\\x07\\x1b[2J");
  EXPECT_EQ(visible_text(std::string("nul\0x", 5)), "nul\\x00x");
  EXPECT_EQ(visible_text("del\x7f"), "del\\x7f");
}

TEST(VisibleText, C1ControlsAreEscapedLikeEsc) {
  // U+009B is the single-character CSI that some terminals obey.
  EXPECT_EQ(visible_text("x\xc2\x9b" "2J"), "x\\xc2\\x9b2J");
  EXPECT_EQ(visible_text("\xc2\xa0"), "\xc2\xa0");  // U+00A0 is printable
}

TEST(VisibleText, BytesThatAreNotUtf8BecomeHexEscapes) {
  EXPECT_EQ(visible_text("caf\xe9"), "caf\\xe9");
  EXPECT_EQ(visible_text("\xff\xfe"), "\\xff\\xfe");
  EXPECT_EQ(visible_text("\xc0\xaf"), "\\xc0\\xaf");          // overlong '/'
  EXPECT_EQ(visible_text("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
  EXPECT_EQ(visible_text("\xe2\x82"), "\\xe2\\x82");          // cut short
}

TEST(ValidUtf8, InvalidBytesBecomeReplacementCharactersAndTheRestIsKept) {
  EXPECT_EQ(text::as_utf8("caf\xe9 ok"), "caf\xEF\xBF\xBD ok");
  EXPECT_EQ(text::as_utf8("Kundé\n"), "Kundé\n");
  EXPECT_EQ(text::as_utf8("\xff\xfe"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(VisibleText, BidiOverridesAndOtherFormatCharactersBecomeCodePointEscapes) {
  // U+202E would show "client-gpj.exe" as "client-exe.jpg".
  EXPECT_EQ(visible_text("client-\xe2\x80\xae" "gpj.exe"), "client-\\u202egpj.exe");
  EXPECT_EQ(visible_text("\xe2\x81\xa6isolated\xe2\x81\xa9"), "\\u2066isolated\\u2069");
  EXPECT_EQ(visible_text("zero\xe2\x80\x8bwidth\xef\xbb\xbf"), "zero\\u200bwidth\\ufeff");
  EXPECT_EQ(visible_text("arabic\xd8\x9cmark"), "arabic\\u061cmark");
  EXPECT_EQ(visible_text("tag\xf3\xa0\x80\x81"), "tag\\U000e0001");
}

TEST(VisibleText, LineAndParagraphSeparatorsKeepOneMessageOnOneLine) {
  EXPECT_EQ(visible_text("line\xe2\x80\xa8" "forged entry\xe2\x80\xa9"), "line\\u2028forged entry\\u2029");
}
