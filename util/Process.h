// Process: runs one external command to completion, optionally with its
// standard output and standard error appended into a file, and keeps the raw
// wait status of the run (a child that exits with 3 leaves 768, not 3).
// Nothing is thrown or logged: a failed spawn shows only in exit_code().
#pragma once

#include <cstddef>
#include <string>

class Process {
 public:
  Process(const std::string& program, const std::string& arguments);

  void redirect_to_file(const std::string& path);
  void start();
  int exit_code() const { return exit_code_; }

  // Size of the command-line buffer handed to the process options: room for
  // short argument texts, twice the text for long ones.
  static std::size_t command_line_buffer_length(const std::string& arguments);

 private:
  std::string program_;
  std::string arguments_;
  bool redirect_ = false;
  std::string redirect_file_;
  int exit_code_ = -1;
};
