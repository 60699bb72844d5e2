// tsanomalyctl anomalies: the reported anomalies, newest first, as an
// aligned table or as JSON lines.
#pragma once

#include <string>

extern const std::string kAnomaliesHelp;
int run_anomalies(int argc, char** argv);
