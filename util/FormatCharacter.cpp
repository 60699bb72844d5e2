#include "util/FormatCharacter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include "util/Text.h"

namespace {

struct Range {
  char32_t first;
  char32_t last;
};

// General categories Cf, Zl and Zp (Unicode 15), sorted and disjoint.
constexpr std::array<Range, 21> kFormatRanges{{
    {0x00AD, 0x00AD},   {0x0600, 0x0605},   {0x061C, 0x061C},   {0x06DD, 0x06DD},   {0x070F, 0x070F},
    {0x0890, 0x0891},   {0x08E2, 0x08E2},   {0x180E, 0x180E},   {0x200B, 0x200F},   {0x2028, 0x202E},
    {0x2060, 0x2064},   {0x2066, 0x206F},   {0xFEFF, 0xFEFF},   {0xFFF9, 0xFFFB},   {0x110BD, 0x110BD},
    {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0001, 0xE0001},
    {0xE0020, 0xE007F},
}};

}  // namespace

namespace text {

std::optional<char32_t> code_point_at(std::string_view s, std::size_t i) {
  const std::size_t length = utf8_sequence_length(s, i);
  if (length == 0) return std::nullopt;
  static constexpr unsigned char kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  char32_t c = static_cast<unsigned char>(s[i]) & kLeadMask[length];
  for (std::size_t k = 1; k < length; ++k) c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
  return c;
}

bool is_format_character(char32_t c) {
  const auto after = std::upper_bound(kFormatRanges.begin(), kFormatRanges.end(), c,
                                      [](char32_t value, const Range& range) { return value < range.first; });
  return after != kFormatRanges.begin() && c <= std::prev(after)->last;
}

std::string code_point_escape(char32_t c) {
  char escape[12];
  std::snprintf(escape, sizeof escape, c <= 0xFFFF ? "\\u%04x" : "\\U%08x", static_cast<unsigned>(c));
  return escape;
}

}  // namespace text
