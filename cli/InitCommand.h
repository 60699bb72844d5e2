// tsanomalyctl init: creates a detector database from the schema compiled
// into the tool, so it works from any folder.
#pragma once

extern const char* const kInitHelp;
int run_init(int argc, char** argv);
