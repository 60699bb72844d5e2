#include "report/HtmlEscape.h"


#include "util/FormatCharacter.h"
#include "util/Text.h"

namespace {

// The entity or replacement for an ASCII byte, or nullptr to keep it.
const char* ascii_replacement(unsigned char c) {
  switch (c) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return "&quot;";
    case '\'': return "&#39;";
    case '\t':
    case '\n':
    case '\r': return nullptr;
    default: break;
  }
  return c < 0x20 || c == 0x7F ? text::kReplacementCharacter.data() : nullptr;
}

}  // namespace

std::string html_escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      const char* replacement = ascii_replacement(c);
      if (replacement != nullptr) {
        out += replacement;
      } else {
        out += static_cast<char>(c);
      }
      ++i;
      continue;
    }
    // A well-formed sequence passes unchanged but for the format characters;
    // anything else becomes one replacement character per offending byte.
    const std::size_t length = text::utf8_sequence_length(text, i);
    if (length == 0) {
      out += text::kReplacementCharacter;
      ++i;
    } else {
      // A format character or separator (an override could show a client's
      // name reversed) is shown by its code point, as the terminal shows it.
      const auto code_point = text::code_point_at(text, i);
      if (code_point && text::is_format_character(*code_point)) {
        out += text::code_point_escape(*code_point);
      } else {
        out.append(text.substr(i, length));
      }
      i += length;
    }
  }
  return out;
}
