// Shared helpers of the fuzz targets: an invariant check that stops the run
// with a message (so libFuzzer saves the input), a UTF-8 test, a scratch
// folder on a memory file system, and exact double comparison.
#pragma once

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

// Stops the run when an invariant does not hold; libFuzzer saves the input
// as a crash.
#define FUZZ_CHECK(condition, ...)                                              \
  do {                                                                          \
    if (!(condition)) {                                                         \
      std::fprintf(stderr, "\nFUZZ_CHECK failed at %s:%d: %s\n", __FILE__,      \
                   __LINE__, #condition);                                       \
      std::fprintf(stderr, "  " __VA_ARGS__);                                   \
      std::fprintf(stderr, "\n");                                               \
      std::abort();                                                             \
    }                                                                           \
  } while (0)

namespace fuzz_support {

// True when s is well-formed UTF-8 without NUL (what JSON strings accept).
inline bool is_utf8(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c == 0) return false;
    std::size_t n = 0;
    unsigned min = 0;
    unsigned code = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xe0) == 0xc0) {
      n = 1, min = 0x80, code = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      n = 2, min = 0x800, code = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      n = 3, min = 0x10000, code = c & 0x07;
    } else {
      return false;
    }
    if (i + n >= s.size()) return false;
    for (std::size_t k = 1; k <= n; ++k) {
      const auto d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xc0) != 0x80) return false;
      code = (code << 6) | (d & 0x3f);
    }
    if (code < min || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return false;
    i += n + 1;
  }
  return true;
}

// The part of s before its first NUL: what a C string API sees.
inline std::string c_string_part(const std::string& s) { return std::string(s.c_str()); }

// A fresh folder for one fuzzing process, on /dev/shm when it is writable
// (or under TMPDIR when that is set); removed when the process exits unless
// FUZZ_KEEP_SCRATCH is set.
inline std::string scratch_folder(const char* name) {
  static std::string folder;
  const char* tmpdir = std::getenv("TMPDIR");
  std::string pattern = tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
  pattern += std::string("/") + name + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  folder = pattern;
  if (std::getenv("FUZZ_KEEP_SCRATCH") != nullptr) {  // for looking into a run afterwards
    std::fprintf(stderr, "scratch folder: %s\n", folder.c_str());
    return pattern;
  }
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  });
  return pattern;
}

// Equal doubles, NaN equal to NaN.
inline bool same_double(double a, double b) { return (std::isnan(a) && std::isnan(b)) || a == b; }

// The same double bit for bit (so 0.0 and -0.0 differ), any NaN equal to any
// NaN.
inline bool same_bits(double a, double b) {
  return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace fuzz_support
