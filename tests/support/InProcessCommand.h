// InProcessCommand: runs one tsanomalyctl command function in the test's
// own process, as the dispatcher would, with its standard output and
// standard error captured. Header-only; gtest is required.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tsanomaly_test {

struct Outcome {
  int exit_code;
  std::string out;
  std::string err;
};

inline Outcome run(int (*command)(int, char**), std::vector<std::string> args) {
  args.insert(args.begin(), "cmd");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int code = command(static_cast<int>(argv.size()), argv.data());
  std::string out = testing::internal::GetCapturedStdout();
  return {code, out, testing::internal::GetCapturedStderr()};
}

}  // namespace tsanomaly_test
