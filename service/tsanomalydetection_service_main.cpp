// The anomaly detection service: answers --help and --version, or parses
// its six options, opens its debug log, prints a short banner and runs
// detection passes until it is stopped.
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>

#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "service/SchemaFindings.h"
#include "service/ServiceOptions.h"
#include "platform/StopSignal.h"
#include "schema/SchemaVersion.h"
#include "util/ProgramVersion.h"

int main(int argc, char** argv) {
  // Answered before the service's own options are read, which would take
  // any other argument for an option and start the service.
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::cout << version_text(ServiceOptions::kProgramName, anomaly_schema::kSchemaVersion) << "\n";
    return 0;
  }
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::cout << ServiceOptions::help();
    return 0;
  }
  const std::optional<ServiceOptions> started = ServiceOptions::start_up(argc, argv);
  if (!started) {
    return 1;
  }
  const ServiceOptions& options = *started;
  try {
    // The separator is a backslash on every platform; the database itself
    // is opened on the path joined with '/'.
    std::cout << "\nWorking with " << options.database_location << "\\" << options.database_file_name;
    std::cout << "\nUsing EPS = " << options.eps << " and min samples = " << options.min_samples << std::flush;
    DetectionService service(options.database_location, options.database_file_name, options.eps,
                             static_cast<double>(options.min_samples), options.config_file);
    log_unknown_schema_objects(service.database());
    service.start();
    if (StopSignal::requested()) {
      logmsgf(kLogProgress, ServiceOptions::kProgramName, "Stopping on signal %d; pending jobs stay queued for the next start.",
              StopSignal::signal_number());
    }
  } catch (const std::exception& e) {
    std::cout << "\nError occurred while anomaly detection " << e.what() << std::flush;
  }
  return 0;
}
