// Text helpers every layer shares: the one lower-casing rule by which
// configured names are compared, and the one UTF-8 check by which text bound
// for JSON or HTML is repaired. Pure functions; they never fail.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace text {

// A copy with every byte passed through std::tolower (as unsigned char), so
// only ASCII letters change and other bytes are kept as they are.
std::string to_lower(std::string_view s);

// Length of the well-formed UTF-8 sequence starting at s[i] (1 to 4), or 0
// when the bytes there are not one: a stray continuation byte, a cut
// sequence, an overlong form, a surrogate, a code point past U+10FFFF.
std::size_t utf8_sequence_length(std::string_view s, std::size_t i);

// The whole of s as a base-10 integer within [min, max]; none for empty
// text, anything after the digits, or a number out of range. Leading blanks
// are skipped, as strtoll skips them.
std::optional<long long> whole_number(std::string_view s, long long min, long long max);

// U+FFFD, the replacement character, in UTF-8.
inline constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// s with each byte that does not belong to a well-formed sequence replaced
// by U+FFFD; valid UTF-8 comes back unchanged.
std::string as_utf8(std::string_view s);

// At most max_bytes of s, cut before a UTF-8 sequence that would not fit,
// with "…" (U+2026) appended when anything was cut: for names shown in
// a page or an answer whose size must not follow the database's.
std::string capped(std::string_view s, std::size_t max_bytes);

}  // namespace text
