// ChildProcess: runs one of the project's executables for a test, with its
// standard output and standard error captured, and reports how it ended.
// A child still running at the deadline is killed, so a test never hangs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tsanomaly_test {

class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> argv);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void start();
  // Reads output until standard output contains text or the deadline
  // passes; true when it appeared.
  bool wait_for_output(const std::string& text, std::chrono::milliseconds deadline);
  void send_signal(int number);
  // Waits for the child to end (killing it at the deadline) and collects
  // the rest of its output. Returns the raw wait status.
  int wait(std::chrono::milliseconds deadline = std::chrono::seconds(30));

  pid_t pid() const { return pid_; }
  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }
  bool timed_out() const { return timed_out_; }

  // Starts, waits and returns the exit code (or -1 when the child did not
  // exit normally).
  static int run(ChildProcess& child, std::chrono::milliseconds deadline = std::chrono::seconds(30));

 private:
  void drain(int timeout_ms);

  std::vector<std::string> argv_;
  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  std::string out_;
  std::string err_;
  bool timed_out_ = false;
};

}  // namespace tsanomaly_test
