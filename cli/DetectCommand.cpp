#include "cli/DetectCommand.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>

#include "cli/CommandArgs.h"
#include "service/DetectionService.h"
#include "service/SchemaFindings.h"
#include "service/ServiceOptions.h"

// The service's own options, as ServiceOptions declares and reads them:
// listed by --help, and a misspelt one is refused rather than run without.
const CommandArgs::Syntax kDetectSyntax{ServiceOptions::declared(), 0, 0};

const std::string kDetectHelp =
    "usage: tsanomalyctl detect -database_location DIR -database_file_name FILE [-eps EPS]\n"
    "                           [-min_samples N] [-log_path DIR] [-config_file INI]\n"
    "\n"
    "Runs one detection pass over the pending jobs now, exactly as the service\n"
    "does every 120 s, and exits. Logs to <log_path>/tsanomalydetect/tsanomalydetect.log\n"
    "(default log path /usr/tsroot/tessaryn/logs). SIGTERM or SIGINT finish the job\n"
    "in hand and leave the rest pending.\n"
    "\n" +
    options_help(kDetectSyntax.options);

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
    const bool known = std::any_of(kDetectSyntax.options.begin(), kDetectSyntax.options.end(),
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
