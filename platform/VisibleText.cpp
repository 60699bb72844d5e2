#include "platform/VisibleText.h"

#include <algorithm>
#include <cstdio>

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 when the
// bytes there are not one (overlong forms, surrogates and code points past
// U+10FFFF included).
std::size_t sequence_length(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return k < text.size() ? static_cast<unsigned char>(text[k]) : 0u; };
  const auto continuation = [&](std::size_t k, unsigned low = 0x80, unsigned high = 0xBF) {
    return byte(k) >= low && byte(k) <= high;
  };
  const unsigned lead = byte(i);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continuation(i + 1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned high = lead == 0xED ? 0x9F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
    return continuation(i + 1, low, high) && continuation(i + 2) && continuation(i + 3) ? 4 : 0;
  }
  return 0;
}

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

// U+0080..U+009F, encoded as C2 80..C2 9F.
bool is_c1_control(std::string_view text, std::size_t i) {
  return static_cast<unsigned char>(text[i]) == 0xC2 && static_cast<unsigned char>(text[i + 1]) <= 0x9F;
}

// Logging runs a dozen times per job: text with nothing to escape (nearly
// all of it) is recognised without building anything.
bool printable_ascii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte < 0x7F;
  });
}

void append_escape(std::string& out, unsigned char c) {
  switch (c) {
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default: {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
}

}  // namespace

std::string visible_text(std::string_view text) {
  if (printable_ascii(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 16);
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = sequence_length(text, i);
    const bool shown = length == 1 ? !is_control(static_cast<unsigned char>(text[i]))
                                   : length > 1 && !(length == 2 && is_c1_control(text, i));
    // A rejected sequence is escaped byte by byte, so nothing of it is lost.
    const std::size_t taken = std::max<std::size_t>(length, 1);
    if (shown) {
      out.append(text.substr(i, taken));
    } else {
      for (std::size_t k = 0; k < taken; ++k) append_escape(out, static_cast<unsigned char>(text[i + k]));
    }
    i += taken;
  }
  return out;
}

std::string valid_utf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = sequence_length(text, i);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text.substr(i, length));
      i += length;
    }
  }
  return out;
}
