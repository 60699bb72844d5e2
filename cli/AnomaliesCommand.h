// tsanomalyctl anomalies: the reported anomalies, newest first, as an
// aligned table or as JSON lines.
#pragma once

extern const char* const kAnomaliesHelp;
int run_anomalies(int argc, char** argv);
