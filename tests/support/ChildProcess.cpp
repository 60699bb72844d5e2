#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace tsanomaly_test {

ChildProcess::ChildProcess(std::vector<std::string> argv) : argv_(std::move(argv)) {}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_fd_ >= 0) close(out_fd_);
  if (err_fd_ >= 0) close(err_fd_);
}

void ChildProcess::start() {
  int out_pipe[2];
  int err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) {
    throw std::runtime_error("pipe failed");
  }
  std::vector<char*> args;
  for (std::string& arg : argv_) args.push_back(arg.data());
  args.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    close(out_pipe[0]);
    close(err_pipe[0]);
    execv(args[0], args.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  out_fd_ = out_pipe[0];
  err_fd_ = err_pipe[0];
}

// Moves whatever the child has written into out_ and err_, waiting at most
// timeout_ms for something to arrive.
void ChildProcess::drain(int timeout_ms) {
  pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
  if (poll(fds, 2, timeout_ms) <= 0) {
    return;
  }
  char buffer[4096];
  for (int i = 0; i < 2; ++i) {
    if (fds[i].revents & (POLLIN | POLLHUP)) {
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) (i == 0 ? out_ : err_).append(buffer, static_cast<size_t>(n));
    }
  }
}

bool ChildProcess::wait_for_output(const std::string& text, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (out_.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= end) return false;
    drain(50);
  }
  return true;
}

void ChildProcess::send_signal(int number) { kill(pid_, number); }

int ChildProcess::wait(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= end) {
      timed_out_ = true;
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    drain(20);
  }
  pid_ = -1;
  // The child is gone: read to the end of both pipes.
  for (int fd : {out_fd_, err_fd_}) {
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) (fd == out_fd_ ? out_ : err_).append(buffer, n);
  }
  return status;
}

int ChildProcess::run(ChildProcess& child, std::chrono::milliseconds deadline) {
  child.start();
  const int status = child.wait(deadline);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tsanomaly_test
