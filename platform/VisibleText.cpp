#include "platform/VisibleText.h"

#include <algorithm>
#include <cstdio>

#include "util/FormatCharacter.h"
#include "util/Text.h"

namespace {

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

// A format character or separator is shown by its code point, as \u202e:
// raw, it would reorder, hide or break the text around it.
bool append_if_format_character(std::string& out, std::string_view text, std::size_t i) {
  const auto c = text::code_point_at(text, i);
  if (!c || !text::is_format_character(*c)) return false;
  out += text::code_point_escape(*c);
  return true;
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
    const std::size_t length = text::utf8_sequence_length(text, i);
    const bool shown = length == 1 ? !is_control(static_cast<unsigned char>(text[i]))
                                   : length > 1 && !(length == 2 && is_c1_control(text, i));
    // A rejected sequence is escaped byte by byte, so nothing of it is lost.
    const std::size_t taken = std::max<std::size_t>(length, 1);
    if (!shown) {
      for (std::size_t k = 0; k < taken; ++k) append_escape(out, static_cast<unsigned char>(text[i + k]));
    } else if (length == 1 || !append_if_format_character(out, text, i)) {
      out.append(text.substr(i, taken));
    }
    i += taken;
  }
  return out;
}
