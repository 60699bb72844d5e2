#include "cli/DetectCommand.h"

#include <cstring>
#include <exception>
#include <iostream>

#include "service/DetectionService.h"
#include "service/SchemaFindings.h"
#include "service/ServiceOptions.h"

const char* const kDetectHelp =
    "usage: tsanomalyctl detect -database_location DIR -database_file_name FILE [-eps EPS]\n"
    "                           [-min_samples N] [-log_path DIR] [-config_file INI]\n"
    "\n"
    "Runs one detection pass over the pending jobs now, exactly as the service\n"
    "does every 120 s, and exits. Logs to <log_path>/tsanomalydetect/tsanomalydetect.log\n"
    "(default log path /usr/tsroot/tessaryn/logs). SIGTERM or SIGINT finish the job\n"
    "in hand and leave the rest pending.\n";

int run_detect(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0) {
      std::cout << kDetectHelp;
      return 0;
    }
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
