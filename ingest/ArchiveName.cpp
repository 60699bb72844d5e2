#include "ingest/ArchiveName.h"

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_separator(char c) { return c == '-' || c == '_' || c == '.' || c == ':' || c == '@' || c == ' '; }

bool date_at(std::string_view name, std::size_t at) {
  static constexpr std::string_view kShape = "dddd-dd-dd";
  if (at + kShape.size() > name.size()) return false;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const char c = name[at + i];
    if (kShape[i] == 'd' ? !is_digit(c) : c != '-') return false;
  }
  return true;
}

std::size_t end_of_prefix(std::string_view name) {
  for (std::size_t at = 0; at < name.size(); ++at) {
    if (date_at(name, at)) return at;
  }
  std::size_t end = name.size();
  while (end > 0 && (is_digit(name[end - 1]) || is_separator(name[end - 1]))) --end;
  return end;
}

}  // namespace

std::string archive_name_prefix(std::string_view name) {
  std::size_t end = end_of_prefix(name);
  while (end > 0 && is_separator(name[end - 1])) --end;
  return std::string(name.substr(0, end));
}
