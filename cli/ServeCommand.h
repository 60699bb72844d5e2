// tsanomalyctl serve: the operator console, a long-running web server on
// the detector database. Stops cleanly on SIGTERM or SIGINT.
#pragma once

extern const char* const kServeHelp;
int run_serve(int argc, char** argv);
