#include "ingest/JsonDocuments.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "util/Text.h"

namespace {

// The whole input, or none when it is longer than the bound.
std::optional<std::string> read_bounded(std::istream& in) {
  std::string text;
  char buffer[1 << 16];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (text.size() > kMaxInputBytes) return std::nullopt;
  }
  if (in.bad()) throw std::runtime_error("cannot read the input");
  return text;
}

// The value of the four hex digits at text[at..], or none.
std::optional<unsigned> hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) return std::nullopt;
  unsigned value = 0;
  for (std::size_t i = at; i < at + 4; ++i) {
    const char c = text[i];
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (digit < 0) return std::nullopt;
    value = value * 16 + static_cast<unsigned>(digit);
  }
  return value;
}

bool is_high_surrogate(std::optional<unsigned> unit) { return unit && *unit >= 0xD800 && *unit <= 0xDBFF; }
bool is_low_surrogate(std::optional<unsigned> unit) { return unit && *unit >= 0xDC00 && *unit <= 0xDFFF; }

// How many bytes of text[at..] (which starts with a backslash) to copy as
// they are: a whole escape pair, or one escape; 0 for a lone surrogate.
std::size_t escape_length(std::string_view text, std::size_t at) {
  if (at + 1 >= text.size() || text[at + 1] != 'u') return std::min<std::size_t>(2, text.size() - at);
  const std::optional<unsigned> unit = hex4(text, at + 2);
  if (is_high_surrogate(unit)) {
    const bool paired = text.substr(at + 6, 2) == "\\u" && is_low_surrogate(hex4(text, at + 8));
    return paired ? 12 : 0;
  }
  return is_low_surrogate(unit) ? 0 : 2;
}

std::size_t skip_blanks(std::string_view text, std::size_t at) {
  while (at < text.size() && (text[at] == ' ' || text[at] == '\n' || text[at] == '\r' || text[at] == '\t')) ++at;
  return at;
}

}  // namespace

std::string repaired_json_text(std::string_view text) {
  const std::string utf8 = text::as_utf8(text);
  std::string repaired;
  repaired.reserve(utf8.size());
  std::size_t at = 0;
  while (at < utf8.size()) {
    if (utf8[at] != '\\') {
      repaired += utf8[at++];
      continue;
    }
    const std::size_t length = escape_length(utf8, at);
    if (length == 0) {
      repaired += "\\ufffd";
      at += 6;
    } else {
      repaired.append(utf8, at, length);
      at += length;
    }
  }
  return repaired;
}

void for_each_json_document(std::istream& in, JobSink& sink, const std::string& tool, const JsonDocumentVisitor& visit) {
  const std::optional<std::string> raw = read_bounded(in);
  if (!raw) {
    sink.skipped("input", "longer than " + std::to_string(kMaxInputBytes >> 20) + " MiB; nothing read");
    return;
  }
  const std::string text = repaired_json_text(*raw);
  std::size_t at = skip_blanks(text, 0);
  if (at == text.size()) sink.skipped("input", "empty: no " + tool + " output");
  for (std::size_t number = 1; at < text.size(); ++number) {
    const std::string where = "document " + std::to_string(number);
    std::size_t consumed = 0;
    std::string error;
    const Json document = Json::parse_first(std::string_view(text).substr(at), &consumed, &error);
    if (!document.valid()) {
      sink.skipped(where, "not JSON (" + error + "); the rest of the input is not read");
      return;
    }
    if (!visit(document, where)) return;
    at = skip_blanks(text, at + consumed);
  }
}
