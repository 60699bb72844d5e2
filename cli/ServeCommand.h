// tsanomalyctl serve: the operator console, a long-running web server on
// the detector database. Stops cleanly on SIGTERM or SIGINT.
#pragma once

#include <string>

extern const std::string kServeHelp;
int run_serve(int argc, char** argv);
