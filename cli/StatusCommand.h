// tsanomalyctl status: one screen on the state of a detector database:
// queue, history, models and recent anomalies.
#pragma once

extern const char* const kStatusHelp;
int run_status(int argc, char** argv);
