// The release both programs carry, taken from the build's project(VERSION)
// (the package's version too), so tsanomalydetect, tsanomalyctl and the .deb
// can never name different releases.
#pragma once

#include <string>

// e.g. "0.1.0"
const char* program_version();

// What --version prints, worded the same by both programs:
// "PROGRAM VERSION (database schema N)".
std::string version_text(const std::string& program, int schema_version);
