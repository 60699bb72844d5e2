// The INI configuration reader on any file content: every lookup the
// detector makes, plus lookups of the sections and keys the input itself
// names. The reader must never fail, and its answers must keep their
// promises: list items and entry names lower-cased and free of commas,
// defaults where the file has nothing, the same answers from a second
// reader of the same file.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "config/Configuration.h"

namespace {

using Items = std::set<std::string>;
using Entries = std::map<std::string, Items>;

const char* const kSingleKeys[][2] = {
    {"ANOMALY_DETECTION_SENSITIVITY", "SENSITIVITY_PERCENTAGE"},
    {"ANOMALY_MODEL_SETTINGS", "MIN_OBSERVATIONS_FOR_TRAINING"},
    {"ANOMALY_MODEL_SETTINGS", "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY"},
    {"ANOMALY_MODEL_SETTINGS", "MAX_OBSERVATIONS_FOR_TRAINING"},
    {"META_DATA", "LOG_MODEL_DATA"},
    {"ANOMALY_DETECTION_FUNCTIONALITY", "DISABLE_ANOMALY_DETECTION"},
    {"DATABASE_SETTINGS", "PURGE_DATA_INTERVAL_IN_MONTHS"},
};
const char* const kListKeys[][2] = {{"EXCLUDE_CLIENTS", "CLIENT_NAME"}, {"DISABLE_POLICY_TYPE", "POLICY_TYPE"}};
const char* const kDynamicSections[] = {"EXCLUDE_CLIENT_POLICY", "DISABLE_FEATURE_PER_POLICY_TYPE"};

// The file the reader opens: an in-memory file rewritten for every input,
// reached through its /proc path.
struct MemoryFile {
  MemoryFile() : fd(memfd_create("fuzz-ini", 0)), path("/proc/self/fd/" + std::to_string(fd)) {
    FUZZ_CHECK(fd >= 0, "memfd_create failed");
  }
  void write(const uint8_t* data, size_t size) {
    FUZZ_CHECK(ftruncate(fd, 0) == 0, "ftruncate failed");
    size_t done = 0;
    while (done < size) {
      const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
      FUZZ_CHECK(n > 0, "pwrite failed");
      done += static_cast<size_t>(n);
    }
  }
  int fd;
  std::string path;
};

bool has_upper(const std::string& s) {
  for (const char c : s) {
    if (c >= 'A' && c <= 'Z') return true;
  }
  return false;
}

void check_items(const Items& items, const char* what) {
  for (const std::string& item : items) {
    FUZZ_CHECK(!has_upper(item), "%s item '%s' is not lower-cased", what, item.c_str());
    FUZZ_CHECK(item.find(',') == std::string::npos, "%s item '%s' holds a comma", what, item.c_str());
  }
}

// Section and key names as the input writes them ("[name]" lines and the
// text before '=' on other lines), so that lookups reach what was imported.
void names_in(const std::string& text, std::vector<std::string>& sections, std::vector<std::string>& keys) {
  std::size_t start = 0;
  while (start < text.size() && sections.size() + keys.size() < 64) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    if (!line.empty() && line[0] == '[') {
      sections.push_back(line.substr(1, line.find(']') == std::string::npos ? std::string::npos : line.find(']') - 1));
    } else if (const std::size_t eq = line.find('='); eq != std::string::npos) {
      keys.push_back(line.substr(0, eq));
    }
    start = end + 1;
  }
}

// Every answer of one reader, as text, for comparing two readers.
std::string answers(const Configuration& config, const std::vector<std::string>& sections,
                    const std::vector<std::string>& keys) {
  std::string out = std::to_string(config.get_import_status()) + "\n";
  for (const auto& [section, key] : kSingleKeys) out += config.get_config(section, key) + "\n";
  for (const auto& [section, key] : kListKeys) {
    Items items;
    config.get_config_multiple_values(section, key, items);
    check_items(items, key);
    for (const std::string& item : items) out += item + ",";
    out += "\n";
  }
  std::vector<std::string> all_sections(std::begin(kDynamicSections), std::end(kDynamicSections));
  all_sections.insert(all_sections.end(), sections.begin(), sections.end());
  for (const std::string& section : all_sections) {
    Entries entries;
    config.get_config_dynamic_keys_multiple_values(section, entries);
    for (const auto& [name, items] : entries) {
      FUZZ_CHECK(!has_upper(name), "entry name '%s' is not lower-cased", name.c_str());
      check_items(items, name.c_str());
      out += name + "=";
      for (const std::string& item : items) out += item + ",";
      out += "\n";
    }
    for (const std::string& key : keys) {
      out += config.get_config(section, key) + "\n";
      Items items;
      config.get_config_multiple_values(section, key, items);
      check_items(items, key.c_str());
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  file.write(data, size);
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> sections;
  std::vector<std::string> keys;
  names_in(text, sections, keys);

  const Configuration config(file.path, 1);
  const std::string first = answers(config, sections, keys);

  if (config.get_import_status() == -1) {
    FUZZ_CHECK(config.get_config("ANOMALY_MODEL_SETTINGS", "MAX_OBSERVATIONS_FOR_TRAINING") == "3000",
               "failed import does not answer the default");
  }

  // Another reader of the same file gives the same answers.
  const Configuration again(file.path, 1);
  FUZZ_CHECK(answers(again, sections, keys) == first, "two readers of one file disagree");

  // Without defaults, a key the file lacks reads as empty text.
  const Configuration untyped(file.path, 7);
  for (const auto& [section, key] : kSingleKeys) {
    const std::string typed = config.get_config(section, key);
    const std::string plain = untyped.get_config(section, key);
    FUZZ_CHECK(plain == typed || plain.empty(), "type 7 answered '%s' for %s", plain.c_str(), key);
  }
  return 0;
}
