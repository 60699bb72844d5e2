#include "config/IniFile.h"

#include <ace/ACE.h>

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

// The importer read through a buffer of this size: a longer line comes back
// in pieces, each a line of its own.
constexpr int kLineBuffer = 4096;
// ACE's index of section paths has this many buckets (ACE_DEFAULT_MAP_SIZE)
// and compares paths without regard to letter case within a bucket only.
constexpr unsigned long kIndexBuckets = 1024;
constexpr std::size_t kLongestName = 255;
constexpr int32_t kBadLine = -3;
constexpr int32_t kNotStored = -4;

// isspace in the C locale, as the importer trimmed.
bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

std::string trimmed(std::string_view text) {
  std::size_t first = 0;
  std::size_t last = text.size();
  while (first < last && is_blank(text[first])) ++first;
  while (last > first && is_blank(text[last - 1])) --last;
  return std::string(text.substr(first, last - first));
}

// ACE compares names with strcasecmp: ASCII letters only.
std::string folded(std::string_view name) {
  std::string out(name);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// ACE's name rule: no brackets (nor a backslash, but between the parts of a
// path), no backslash first, 1 to 255 characters.
bool valid_name(const std::string& name, bool path) {
  return name.find_first_of(path ? "][" : "\\][") == std::string::npos && !name.empty() && name[0] != '\\' &&
         name.size() <= kLongestName;
}

// A value may also have the empty name.
bool valid_value_name(const std::string& name) { return name.empty() || valid_name(name, false); }

// Names given by callers end at their first NUL, as the C text ACE took.
std::string as_c_text(const std::string& text) { return std::string(text.c_str()); }

// "name" stays as written; a value enclosed in double quotes loses them.
std::string unquoted(std::string value) {
  if (value.empty() || value.front() != '"' || value.back() != '"') return value;
  return value.size() == 1 ? std::string() : value.substr(1, value.size() - 2);
}

}  // namespace

std::size_t IniFile::IndexKeyHash::operator()(const IndexKey& key) const {
  return std::hash<std::string>()(key.first) ^ key.second;
}

IniFile::IniFile(const std::string& path) : sections_(1) {
  index_.emplace(IndexKey{"", ACE::hash_pjw("", 0) % kIndexBuckets}, 0);
  status_ = read(path);
}

int32_t IniFile::read(const std::string& path) {
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> in(std::fopen(path.c_str(), "r"), &std::fclose);
  if (!in) return kUnreadable;
  char buffer[kLineBuffer];
  // The open section's path as its header spelled it; none before the first.
  std::optional<std::string> current;
  while (std::fgets(buffer, sizeof buffer, in.get()) != nullptr) {
    // A line ends at a NUL byte, as the C text it was read into.
    const int32_t status = take_line(trimmed(std::string_view(buffer, std::strlen(buffer))), current);
    if (status != 0) return status;
  }
  return std::ferror(in.get()) ? kUnreadable : 0;
}

int32_t IniFile::take_line(std::string line, std::optional<std::string>& current) {
  if (line.empty() || line[0] == ';' || line[0] == '#') return 0;
  if (line[0] == '[') {
    const std::size_t end = line.rfind(']');
    if (end == std::string::npos || !open_section_path(line.substr(1, end - 1), current)) return kBadLine;
    return 0;
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) return kBadLine;
  return store(current, trimmed(std::string_view(line).substr(0, equals)),
               unquoted(trimmed(std::string_view(line).substr(equals + 1))))
             ? 0
             : kNotStored;
}

// A header names a path whose parts are separated by '\' or '/' (empty parts
// skipped), each part opened or made under the one before; a header with no
// part leaves the current section open.
bool IniFile::open_section_path(const std::string& header, std::optional<std::string>& current) {
  std::string base;
  bool opened_any = false;
  std::size_t start = 0;
  while (start <= header.size()) {
    const std::size_t end = std::min(header.find_first_of("\\/", start), header.size());
    const std::string part = header.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    if (!valid_name(part, true)) return false;
    const auto path = open_or_make_section(base, part);
    if (!path) return false;
    base = *path;
    opened_any = true;
  }
  if (opened_any) current = base;
  return true;
}

// The path of base's part called name, made when missing: a new part fails
// when base already has one whose name differs in letter case only.
std::optional<std::string> IniFile::open_or_make_section(const std::string& base, const std::string& name) {
  const std::string path = base.empty() ? name : base + "\\" + name;
  if (section_named(path)) return path;
  const auto parent = section_named(base);
  if (!parent || !sections_[*parent].child_by_name.emplace(folded(name), sections_.size()).second) {
    return std::nullopt;
  }
  index_.emplace(IndexKey{folded(path), ACE::hash_pjw(path.c_str(), path.size()) % kIndexBuckets},
                 sections_.size());
  sections_.emplace_back();
  return path;
}

std::optional<std::size_t> IniFile::section_named(const std::string& path) const {
  const auto found = index_.find(IndexKey{folded(path), ACE::hash_pjw(path.c_str(), path.size()) % kIndexBuckets});
  if (found == index_.end()) return std::nullopt;
  return found->second;
}

// A caller's section is a path with '\' between its parts, each part looked
// up under the one before.
std::optional<std::size_t> IniFile::section_at(const std::string& section) const {
  if (!valid_name(section, true)) return std::nullopt;
  std::string path;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = std::min(section.find('\\', start), section.size());
    const std::string part = section.substr(start, end - start);
    path = path.empty() ? part : path + "\\" + part;
    if (!section_named(path)) return std::nullopt;
    if (end == section.size()) return section_named(path);
    start = end + 1;
  }
}

bool IniFile::store(const std::optional<std::string>& section, const std::string& name, const std::string& value) {
  if (!valid_value_name(name) || !section) return false;
  const auto at = section_named(*section);
  if (!at) return false;
  Section& target = sections_[*at];
  const auto [entry, added] = target.entry_by_name.emplace(folded(name), target.entries.size());
  if (added) {
    target.entries.emplace_back(name, value);
  } else {
    target.entries[entry->second].second = value;
  }
  return true;
}

std::optional<std::string> IniFile::value(const std::string& section, const std::string& key) const {
  const std::string name = as_c_text(key);
  const auto at = valid_value_name(name) ? section_at(as_c_text(section)) : std::nullopt;
  if (!at) return std::nullopt;
  const Section& found = sections_[*at];
  const auto entry = found.entry_by_name.find(folded(name));
  if (entry == found.entry_by_name.end()) return std::nullopt;
  return found.entries[entry->second].second;
}

bool IniFile::visit_section(const std::string& section,
                            const std::function<void(const std::string&, const std::string&)>& visit) const {
  const auto at = section_at(as_c_text(section));
  if (!at) return false;
  for (const auto& [name, value] : sections_[*at].entries) visit(name, value);
  return true;
}
