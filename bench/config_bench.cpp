// How long the detector takes to read its INI file, which it does at every
// pass: files of growing size, all keys in one section (the worst case for a
// table that does not grow with its contents) and spread over sections.
// Prints one line per file: keys, sections, seconds to parse.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "config/Configuration.h"

namespace {

void write_ini(const std::string& path, int keys, int sections) {
  std::ofstream out(path, std::ios::trunc);
  const int per_section = keys / sections;
  for (int s = 0; s < sections; ++s) {
    out << "[SECTION_" << s << "]\n";
    for (int k = 0; k < per_section; ++k) out << "KEY_" << k << " = value " << k << ",item\n";
  }
}

double parse_seconds(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  const Configuration config(path, 1);
  const std::string probe = config.get_config("SECTION_0", "KEY_0");
  const auto elapsed = std::chrono::steady_clock::now() - start;
  if (probe.empty()) std::fprintf(stderr, "the probe key was not read\n");
  return std::chrono::duration<double>(elapsed).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int largest = argc > 1 ? std::stoi(argv[1]) : 300000;
  char folder[] = "/tmp/config_bench.XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  const std::string path = std::string(folder) + "/bench.ini";
  std::printf("%10s %9s %10s\n", "keys", "sections", "seconds");
  for (const int keys : {1000, 10000, 100000, largest}) {
    for (const int sections : {1, 100}) {
      write_ini(path, keys, sections);
      std::printf("%10d %9d %10.3f\n", keys, sections, parse_seconds(path));
      std::fflush(stdout);
    }
  }
  unlink(path.c_str());
  rmdir(folder);
  return 0;
}
