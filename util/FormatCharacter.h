// FormatCharacter: the Unicode characters that change how the text around
// them is shown without being seen themselves: the format characters (Cf:
// bidirectional overrides and isolates, zero-width characters, the byte
// order mark...) and the line and paragraph separators (U+2028, U+2029).
// Text shown to an operator must not carry them raw. Pure; never fails.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace text {

// The code point of the well-formed UTF-8 sequence at s[i], or none when the
// bytes there are not one (see utf8_sequence_length).
std::optional<char32_t> code_point_at(std::string_view s, std::size_t i);

// True for a character of Unicode's general category Cf, Zl or Zp.
bool is_format_character(char32_t c);

// How such a character is shown instead: its code point, as \u202e (or
// \U000e0001 past U+FFFF).
std::string code_point_escape(char32_t c);

}  // namespace text
