#include "service/ServiceOptions.h"

#include <ace/Arg_Shifter.h>
#include <sys/stat.h>

#include <cstdlib>
#include <iostream>
#include <vector>

#include "platform/DebugLog.h"
#include "platform/StopSignal.h"

namespace {

constexpr int kLogFileMode = 0644;

// The platform's status of the last open, for whoever wants it.
int debugFD = -1;

std::map<std::string, std::string> scan(int argc, char** argv, std::vector<std::string>& named) {
  // The shifter reorders the vector it is given; it works on a copy so the
  // caller's argv stays as the process received it.
  std::vector<char*> args(argv, argv + argc);
  int count = argc;
  ACE_Arg_Shifter_T<char> shifter(count, args.data());
  std::map<std::string, std::string> options;
  while (shifter.is_anything_left()) {
    if (shifter.is_option_next()) {
      const std::string key = shifter.get_current();
      named.push_back(key);
      shifter.consume_arg();
      if (shifter.is_parameter_next()) {
        options.emplace(key, shifter.get_current());
      }
    }
    shifter.consume_arg();
  }
  return options;
}

}  // namespace

const std::vector<CommandOption>& ServiceOptions::declared() {
  static const std::vector<CommandOption> options{
      {.name = "-database_location", .value_name = "DIR", .help = "the folder of the detector database"},
      {.name = "-database_file_name", .value_name = "FILE", .help = "the detector database's file name in DIR"},
      {.name = "-eps", .value_name = "EPS", .help = "DBSCAN's eps (default: calibrated per workload)"},
      {.name = "-min_samples", .value_name = "N", .help = "DBSCAN's min_samples, at least 3 (default 3)"},
      {.name = "-log_path", .value_name = "DIR", .help = "where the log goes (default /usr/tsroot/tessaryn/logs)"},
      {.name = "-config_file", .value_name = "INI", .help = "the configuration file (default: the built-in settings)"}};
  return options;
}

std::string ServiceOptions::help() {
  return "usage: tsanomalydetect -database_location DIR -database_file_name FILE [-eps EPS]\n"
         "                       [-min_samples N] [-log_path DIR] [-config_file INI]\n"
         "       tsanomalydetect --help | --version\n"
         "\n"
         "Runs a detection pass over the jobs pending in the detector database every\n"
         "120 s until SIGTERM or SIGINT, which finish the job in hand and leave the\n"
         "rest pending. Logs to <log_path>/tsanomalydetect/tsanomalydetect.log.\n"
         "\n" +
         options_help(declared());
}

ServiceOptions ServiceOptions::parse(int argc, char** argv) {
  ServiceOptions parsed;
  parsed.options = scan(argc, argv, parsed.named);
  auto& options = parsed.options;
  // These four lookups add an empty value for a missing option, which then
  // converts like any other text.
  parsed.database_location = options["-database_location"];
  parsed.database_file_name = options["-database_file_name"];
  parsed.eps = std::strtod(options["-eps"].c_str(), nullptr);
  parsed.min_samples = static_cast<int>(std::strtol(options["-min_samples"].c_str(), nullptr, 10));
  if (parsed.min_samples < kMinimumMinSamples) {
    parsed.min_samples = kMinimumMinSamples;
  }
  if (const auto found = options.find("-log_path"); found != options.end()) {
    parsed.log_path = found->second;
  }
  if (const auto found = options.find("-config_file"); found != options.end()) {
    parsed.has_config_file = true;
    parsed.config_file = found->second;
  }
  return parsed;
}

bool ServiceOptions::open_log() const {
  int status = 0;
  debugFD = open_debug_log(log_path, kProgramName, kProgramName, kLogFileMode, &status);
  if (status < 0) {
    std::cerr << "Failed to setup logging at [" << log_path + "/" + kProgramName << "]\n";
    return false;
  }
  return true;
}

void ServiceOptions::log_configuration_file() const {
  if (has_config_file) {
    logmsgf(kLogProgress, kProgramName, "Using configuration file %s", config_file.c_str());
  }
}

std::optional<ServiceOptions> ServiceOptions::start_up(int argc, char** argv) {
  umask(022);
  ServiceOptions options = parse(argc, argv);
  if (!options.open_log()) {
    return std::nullopt;
  }
  options.log_configuration_file();
  StopSignal::install();
  return options;
}
