#include "config/Configuration.h"

#include <ace/Configuration_Import_Export.h>
#include <sys/stat.h>

#include <sstream>
#include <utility>

#include "util/Text.h"

namespace {

constexpr size_t kSectionMapSize = 16;
// The importer's answer for a file it could not read at all; only this one
// makes lookups ignore the heap, a partial import is still used.
constexpr int32_t kImportFailed = -1;
constexpr char kListSeparator = ',';

// Items go in exactly as written between separators, so "a, b" keeps the
// blank before b and "a,,b" yields an empty item; getline stops at the end
// of the text, so a trailing separator adds nothing.
void split(std::set<std::string>& out, const std::string& s, char separator) {
  std::istringstream stream(s);
  std::string item;
  while (std::getline(stream, item, separator)) {
    out.insert(item);
  }
}

// List items are compared with lower-cased names, so they are stored that way.
void add_lowered_items(std::set<std::string>& out, const std::string& value) {
  split(out, text::to_lower(value), kListSeparator);
}

std::string to_string(const ACE_TString& s) { return std::string(s.c_str(), s.length()); }

// The table is wider than what the detector reads: the keys that other parts
// of the product use keep their defaults here too.
std::map<std::string, std::string> defaults_for(int32_t config_type) {
  if (config_type != 1) {
    return {};
  }
  return {
      {"ANOMALY_DETECTION_FUNCTIONALITY+DISABLE_ANOMALY_DETECTION", "0"},
      {"ANOMALY_DETECTION_FUNCTIONALITY+DISABLE_DETECTION_SERVICE", "1"},
      {"ANOMALY_DETECTION_FUNCTIONALITY+DISABLE_ALERT_SERVICE", "1"},
      {"ANOMALY_DETECTION_SENSITIVITY+SENSITIVITY_PERCENTAGE", "0"},
      {"DATABASE_SETTINGS+PURGE_DATA_INTERVAL_IN_MONTHS", "12"},
      {"DATA_GATHER_SETTINGS+LIVE_DATA_GATHER_FREQUENCY_IN_MIN", "15"},
      {"ANOMALY_MODEL_SETTINGS+MIN_OBSERVATIONS_FOR_TRAINING", "30"},
      {"ANOMALY_MODEL_SETTINGS+DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY", "365"},
      {"ANOMALY_MODEL_SETTINGS+MAX_OBSERVATIONS_FOR_TRAINING", "3000"},
  };
}

// Only a regular file is read: a FIFO would block the pass until someone
// writes to it, and a device such as /dev/zero would never end.
bool is_regular_file(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int32_t import_file(ACE_Configuration_Heap& config, const std::string& path) {
  // A heap that could not be opened must never be looked into; reporting it
  // like an unreadable file sends every lookup to the defaults.
  if (config.open(kSectionMapSize) != 0 || !is_regular_file(path)) {
    return kImportFailed;
  }
  ACE_Ini_ImpExp importer(config);
  return importer.import_config(path.c_str());
}

}  // namespace

Configuration::Configuration(const std::string& config_file, int32_t config_type)
    : config_file(config_file),
      defaults(defaults_for(config_type)),
      import_status(import_file(config, config_file)) {}

std::string Configuration::get_config(const std::string& section, const std::string& key) const {
  std::string value;
  if (read_value(section, key, value)) {
    return value;
  }
  return default_value(section, key);
}

void Configuration::get_config_multiple_values(const std::string& section, const std::string& key,
                                               std::set<std::string>& values) const {
  std::string value;
  if (read_value(section, key, value)) {
    add_lowered_items(values, value);
  }
}

void Configuration::get_config_dynamic_keys_multiple_values(
    const std::string& section, std::map<std::string, std::set<std::string>>& entries) const {
  ACE_Configuration_Section_Key key;
  if (!open_section(section, key)) {
    return;
  }
  ACE_TString name;
  ACE_Configuration::VALUETYPE type;
  // enumerate_values answers 1 past the last entry and -1 on error; both end
  // the walk, and so does an entry that cannot be read as a string.
  for (int index = 0; config.enumerate_values(key, index, name, type) == 0; ++index) {
    ACE_TString value;
    if (config.get_string_value(key, name.c_str(), value) != 0) {
      return;
    }
    std::set<std::string> items;
    add_lowered_items(items, to_string(value));
    entries[text::to_lower(to_string(name))] = std::move(items);
  }
}

bool Configuration::open_section(const std::string& section, ACE_Configuration_Section_Key& key) const {
  if (import_status == kImportFailed) {
    return false;
  }
  return config.open_section(config.root_section(), section.c_str(), false, key) == 0;
}

bool Configuration::read_value(const std::string& section, const std::string& key, std::string& value) const {
  ACE_Configuration_Section_Key section_key;
  ACE_TString stored;
  if (!open_section(section, section_key) || config.get_string_value(section_key, key.c_str(), stored) != 0) {
    return false;
  }
  value = to_string(stored);
  return true;
}

std::string Configuration::default_value(const std::string& section, const std::string& key) const {
  const auto found = defaults.find(section + "+" + key);
  return found == defaults.end() ? std::string() : found->second;
}
