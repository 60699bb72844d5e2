#include "config/Configuration.h"

#include <sys/stat.h>

#include <sstream>
#include <utility>

#include "util/Text.h"

namespace {

// The importer's answer for a file it could not read at all; only this one
// makes lookups ignore what was read, a partial import is still used.
constexpr int32_t kImportFailed = IniFile::kUnreadable;
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

// A FIFO or device is not even opened: it reads as a file that cannot be.
std::string readable_path(const std::string& path) { return is_regular_file(path) ? path : std::string(); }

}  // namespace

Configuration::Configuration(const std::string& config_file, int32_t config_type)
    : config_file(config_file),
      defaults(defaults_for(config_type)),
      file(readable_path(config_file)),
      import_status(file.import_status()) {}

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
  if (import_status == kImportFailed) return;
  file.visit_section(section, [&](const std::string& name, const std::string& value) {
    std::set<std::string> items;
    add_lowered_items(items, value);
    entries[text::to_lower(name)] = std::move(items);
  });
}

bool Configuration::read_value(const std::string& section, const std::string& key, std::string& value) const {
  if (import_status == kImportFailed) return false;
  auto stored = file.value(section, key);
  if (!stored) return false;
  value = std::move(*stored);
  return true;
}

std::string Configuration::default_value(const std::string& section, const std::string& key) const {
  const auto found = defaults.find(section + "+" + key);
  return found == defaults.end() ? std::string() : found->second;
}
