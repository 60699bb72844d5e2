#include "util/Text.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace text {

std::string to_lower(std::string_view s) {
  std::string lowered(s);
  for (char& c : lowered) {
    // tolower is only defined for values of unsigned char (and EOF).
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return lowered;
}

std::size_t utf8_sequence_length(std::string_view s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return k < s.size() ? static_cast<unsigned char>(s[k]) : 0u; };
  const auto continuation = [&](std::size_t k, unsigned low = 0x80, unsigned high = 0xBF) {
    return byte(k) >= low && byte(k) <= high;
  };
  const unsigned lead = byte(i);
  if (i >= s.size()) return 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continuation(i + 1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    // E0 must not start an overlong form, ED must not start a surrogate.
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    // F0 must not start an overlong form, F4 must stay within U+10FFFF.
    const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) && continuation(i + 3) ? 4 : 0;
  }
  return 0;
}

std::optional<long long> whole_number(std::string_view s, long long min, long long max) {
  const std::string text(s);
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || *end != '\0' || value < min || value > max) return std::nullopt;
  return value;
}

std::string as_utf8(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size();) {
    const std::size_t length = utf8_sequence_length(s, i);
    if (length == 0) {
      out += kReplacementCharacter;
      ++i;
    } else {
      out.append(s, i, length);
      i += length;
    }
  }
  return out;
}

std::string capped(std::string_view s, std::size_t max_bytes) {
  if (s.size() <= max_bytes) return std::string(s);
  std::size_t end = max_bytes;
  // Back off over continuation bytes to the start of the cut sequence.
  while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
  return std::string(s.substr(0, end)) + "\xE2\x80\xA6";
}

}  // namespace text
