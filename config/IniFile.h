// IniFile: the detector's INI file, read line by line exactly as ACE's INI
// importer read it into ACE's configuration heap (the same lines taken or
// refused, the same import status, names matched the same way), in time
// linear in the file: the heap kept each section's names in a table of 16
// buckets that never grows, so n keys took time quadratic in n, and the
// detector reads the file at every pass. Owns what it read; never throws.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

class IniFile {
 public:
  // What import_status() answers for a file that could not be read at all.
  static constexpr int32_t kUnreadable = -1;

  // Reads path: import_status() is 0 when every line was taken, -3 when a
  // line was neither a comment, a section nor "name = value" or named a
  // section that cannot be made, -4 when a value could not be stored (no
  // section yet, a bad name); what was read before that line is kept.
  explicit IniFile(const std::string& path);

  int32_t import_status() const { return status_; }

  // The value stored for key in section (a path: "A\B"), none when there is
  // no such section or key. Section names match as ACE's heap matched them
  // (exactly, but for the rare names its index cannot tell apart), value
  // names without regard to ASCII letter case.
  std::optional<std::string> value(const std::string& section, const std::string& key) const;

  // Hands every entry of the section, name as first written and value, to
  // visit; false when there is no such section.
  bool visit_section(const std::string& section,
                     const std::function<void(const std::string&, const std::string&)>& visit) const;

 private:
  struct Section {
    std::vector<std::pair<std::string, std::string>> entries;  // first spelling, latest value
    std::unordered_map<std::string, std::size_t> entry_by_name;  // by folded name
    std::unordered_map<std::string, std::size_t> child_by_name;  // by folded name
  };
  // A section as ACE's heap filed it: its path folded, and the bucket the
  // path's own spelling hashes to.
  using IndexKey = std::pair<std::string, unsigned long>;
  struct IndexKeyHash {
    std::size_t operator()(const IndexKey& key) const;
  };

  int32_t read(const std::string& path);
  int32_t take_line(std::string line, std::optional<std::string>& current);
  bool open_section_path(const std::string& header, std::optional<std::string>& current);
  std::optional<std::string> open_or_make_section(const std::string& base, const std::string& name);
  std::optional<std::size_t> section_at(const std::string& path) const;
  std::optional<std::size_t> section_named(const std::string& path) const;
  bool store(const std::optional<std::string>& section, const std::string& name, const std::string& value);

  std::vector<Section> sections_;
  std::unordered_map<IndexKey, std::size_t, IndexKeyHash> index_;
  int32_t status_;
};
