// TimedCommand: runs a program (no shell: argv[0] is the program's path)
// with a text on its standard input and a time limit, and keeps the start
// of what it writes to standard output and standard error. A program still
// running at the limit is killed with its whole process group. The child
// gets no other descriptor of ours. Nothing is thrown; the outcome says what
// happened. The calling process ignores SIGPIPE from then on, so a program
// that does not read its input shows as a failed write, not a dead caller.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct CommandOutcome {
  bool started = false;    // false: the program could not be run (see error)
  bool timed_out = false;  // killed at the limit
  int wait_status = 0;     // raw, as waitpid gives it
  std::string error;       // why it could not be started
  std::string output;      // the first bytes of its standard output and error

  bool succeeded() const;  // started, not killed, exit status 0
  std::string failure() const;  // one line: why not (empty after success)
};

CommandOutcome run_timed_command(const std::vector<std::string>& argv, std::string_view input,
                                 std::chrono::milliseconds limit, std::size_t output_limit = 1024);
