// Configuration: the detector's settings, read once from an INI file the way
// ACE's heap configuration and INI importer read it (config/IniFile). It
// never throws: a file that cannot be read, or a missing section or key,
// answers from the built-in defaults of the config type, or with nothing.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "config/IniFile.h"

class Configuration {
 public:
  // Only config type 1 has built-in defaults; any other type answers a
  // missing key with the empty string.
  Configuration(const std::string& config_file, int32_t config_type);
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  // The value exactly as the importer stored it (case and inner spaces kept),
  // else the default for "section+key", else "".
  std::string get_config(const std::string& section, const std::string& key) const;

  // Adds the key's comma-separated items, lower-cased and untrimmed, to
  // values. A missing key adds nothing; defaults are never consulted.
  void get_config_multiple_values(const std::string& section, const std::string& key,
                                  std::set<std::string>& values) const;

  // For every entry of the section, stores its lower-cased comma-separated
  // items under its lower-cased name, replacing what entries held there.
  void get_config_dynamic_keys_multiple_values(
      const std::string& section, std::map<std::string, std::set<std::string>>& entries) const;

  // What ACE's importer returned (IniFile keeps its answers): 0 when the whole file was read, -1 when it
  // could not be read at all; other negative values mean it stopped at a line
  // it could not take, keeping everything read before that line.
  int32_t get_import_status() const { return import_status; }

 private:
  bool read_value(const std::string& section, const std::string& key, std::string& value) const;
  std::string default_value(const std::string& section, const std::string& key) const;

  std::string config_file;
  std::map<std::string, std::string> defaults;
  IniFile file;
  int32_t import_status;
};
