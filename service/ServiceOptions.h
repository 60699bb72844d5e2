// ServiceOptions: the six command-line options of the service, declared once
// (for --help, tsanomalyctl detect, the manual page's check and the shell
// completion), read the way the service has always read them, and the
// opening of its debug log. Shared by the service's entry point and the
// operator tool's one-pass command.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "util/CommandOption.h"

struct ServiceOptions {
  static constexpr const char* kProgramName = "tsanomalydetect";
  static constexpr const char* kDefaultLogPath = "/usr/tsroot/tessaryn/logs";
  static constexpr int kMinimumMinSamples = 3;

  // The six options with their help texts, in the order --help lists them.
  static const std::vector<CommandOption>& declared();
  // What `tsanomalydetect --help` prints.
  static std::string help();

  // Scans argv (argument 0 included) with ACE's argument shifter: an
  // argument starting with '-' is an option and takes the next argument as
  // its value when that one is not an option; after an option one more
  // argument is always consumed, so an option without a value swallows the
  // next one. The first value given for an option wins.
  static ServiceOptions parse(int argc, char** argv);

  // What every program that runs detection does first: file-creation mask
  // 022, parse, open the debug log, name the configuration file in it and
  // route SIGTERM / SIGINT to a clean stop. Empty when the log cannot be
  // opened (the reason is already on standard error).
  static std::optional<ServiceOptions> start_up(int argc, char** argv);

  // Opens <log_path>/tsanomalydetect/tsanomalydetect.log (mode 0644). On
  // failure writes "Failed to setup logging at [<log_path>/tsanomalydetect]"
  // to standard error and returns false.
  bool open_log() const;
  // Logs "Using configuration file <path>" when one was given.
  void log_configuration_file() const;

  std::map<std::string, std::string> options;  // as typed, "-" included
  std::vector<std::string> named;              // every option named, also without a value
  std::string database_location;
  std::string database_file_name;
  double eps = 0.0;
  int min_samples = kMinimumMinSamples;
  std::string log_path = kDefaultLogPath;
  bool has_config_file = false;
  std::string config_file;
};
