#include "cli/DetectCommand.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>

#include "cli/CommandArgs.h"
#include "service/DetectionService.h"
#include "service/SchemaFindings.h"
#include "service/ServiceOptions.h"

// The service's own options, read by ServiceOptions; declared here for the
// help and to refuse a misspelt one rather than run without it.
const CommandArgs::Syntax kSyntax{
    {{.name = "-database_location", .value_name = "DIR", .help = "the folder of the detector database"},
     {.name = "-database_file_name", .value_name = "FILE", .help = "the detector database's file name in DIR"},
     {.name = "-eps", .value_name = "EPS", .help = "DBSCAN's eps (default: calibrated per workload)"},
     {.name = "-min_samples", .value_name = "N", .help = "DBSCAN's min_samples, at least 3 (default 3)"},
     {.name = "-log_path", .value_name = "DIR", .help = "where the log goes (default /usr/tsroot/tessaryn/logs)"},
     {.name = "-config_file", .value_name = "INI", .help = "the configuration file (default: the built-in settings)"}},
    0,
    0};

const std::string kDetectHelp =
    "usage: tsanomalyctl detect -database_location DIR -database_file_name FILE [-eps EPS]\n"
    "                           [-min_samples N] [-log_path DIR] [-config_file INI]\n"
    "\n"
    "Runs one detection pass over the pending jobs now, exactly as the service\n"
    "does every 120 s, and exits. Logs to <log_path>/tsanomalydetect/tsanomalydetect.log\n"
    "(default log path /usr/tsroot/tessaryn/logs). SIGTERM or SIGINT finish the job\n"
    "in hand and leave the rest pending.\n"
    "\n" +
    CommandArgs::options_help(kSyntax.options);

namespace {

bool wants_help(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) return true;
  }
  return false;
}

// The first option, as the service's own parser finds them, that the service
// does not know; it would otherwise be ignored without a word.
std::optional<std::string> unknown_option(int argc, char** argv) {
  for (const std::string& name : ServiceOptions::parse(argc, argv).named) {
    const bool known = std::any_of(kSyntax.options.begin(), kSyntax.options.end(),
                                   [&](const CommandOption& option) { return option.name == name; });
    if (!known) return name;
  }
  return std::nullopt;
}

}  // namespace

int run_detect(int argc, char** argv) {
  if (wants_help(argc, argv)) {
    std::cout << kDetectHelp;
    return 0;
  }
  if (const auto unknown = unknown_option(argc, argv)) {
    return CommandArgs::usage_error("detect", "unknown option " + *unknown);
  }
  const std::optional<ServiceOptions> started = ServiceOptions::start_up(argc, argv);
  if (!started) {
    return 1;
  }
  const ServiceOptions& options = *started;
  try {
    DetectionService service(options.database_location, options.database_file_name, options.eps,
                             static_cast<double>(options.min_samples), options.config_file);
    log_unknown_schema_objects(service.database());
    service.do_detection();
  } catch (const std::exception& e) {
    std::cout << "\nError occurred while anomaly detection " << e.what() << std::flush;
  }
  return 0;
}
