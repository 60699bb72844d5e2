#include "util/TimedCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <linux/close_range.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int read = -1, write = -1;
  bool open() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    read = fds[0];
    write = fds[1];
    return true;
  }
  static void close_end(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  ~Pipe() {
    close_end(read);
    close_end(write);
  }
};

// In the child, between fork and exec: only async-signal-safe calls.
[[noreturn]] void become(const std::vector<char*>& argv, Pipe& input, Pipe& output, Pipe& exec_error) {
  setpgid(0, 0);
  signal(SIGPIPE, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (dup2(input.read, 0) < 0 || dup2(output.write, 1) < 0 || dup2(output.write, 2) < 0) _exit(127);
  // Whatever else is open (the database, sockets) closes at exec.
  syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
  execv(argv[0], argv.data());
  const int error = errno;
  (void)!write(exec_error.write, &error, sizeof error);
  _exit(127);
}

// Moves input into the child and its output into outcome until both sides
// are done or the deadline passes. True when the child has exited.
bool exchange(pid_t pid, std::string_view input, int& in_fd, int& out_fd, Clock::time_point deadline,
              std::size_t output_limit, CommandOutcome& outcome) {
  std::size_t written = 0;
  if (input.empty()) Pipe::close_end(in_fd);
  while (Clock::now() < deadline) {
    pollfd fds[2] = {{in_fd, POLLOUT, 0}, {out_fd, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    poll(fds, 2, static_cast<int>(std::min<long long>(std::max<long long>(left, 1), 50)));
    if (in_fd >= 0 && (fds[0].revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = write(in_fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if ((n < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) Pipe::close_end(in_fd);
    }
    if (out_fd >= 0 && (fds[1].revents & (POLLIN | POLLERR | POLLHUP))) {
      char buffer[4096];
      const ssize_t n = read(out_fd, buffer, sizeof buffer);
      if (n > 0 && outcome.output.size() < output_limit) {
        outcome.output.append(buffer, std::min<std::size_t>(n, output_limit - outcome.output.size()));
      }
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) Pipe::close_end(out_fd);
    }
    // The program may be gone while something it started still holds the
    // output open; its own exit ends the exchange.
    if (out_fd < 0 || in_fd < 0) {
      if (waitpid(pid, &outcome.wait_status, WNOHANG) == pid) return true;
    }
  }
  return false;
}

}  // namespace

bool CommandOutcome::succeeded() const {
  return started && !timed_out && WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 0;
}

std::string CommandOutcome::failure() const {
  if (!started) return error;
  std::string why;
  if (timed_out) {
    why = "killed at its time limit";
  } else if (WIFEXITED(wait_status) && WEXITSTATUS(wait_status) != 0) {
    why = "exit status " + std::to_string(WEXITSTATUS(wait_status));
  } else if (WIFSIGNALED(wait_status)) {
    why = "killed by signal " + std::to_string(WTERMSIG(wait_status));
  } else {
    return "";
  }
  std::string first_line = output.substr(0, output.find('\n'));
  return first_line.empty() ? why : why + ": " + first_line;
}

CommandOutcome run_timed_command(const std::vector<std::string>& argv, std::string_view input,
                                 std::chrono::milliseconds limit, std::size_t output_limit) {
  signal(SIGPIPE, SIG_IGN);
  CommandOutcome outcome;
  if (argv.empty()) {
    outcome.error = "no program given";
    return outcome;
  }
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  Pipe in, out, exec_error;
  if (!in.open() || !out.open() || !exec_error.open()) {
    outcome.error = std::string("cannot make a pipe: ") + std::strerror(errno);
    return outcome;
  }
  const auto deadline = Clock::now() + limit;
  const pid_t pid = fork();
  if (pid < 0) {
    outcome.error = std::string("cannot start a process: ") + std::strerror(errno);
    return outcome;
  }
  if (pid == 0) become(args, in, out, exec_error);
  setpgid(pid, pid);
  Pipe::close_end(in.read);
  Pipe::close_end(out.write);
  Pipe::close_end(exec_error.write);
  int exec_errno = 0;
  if (read(exec_error.read, &exec_errno, sizeof exec_errno) == sizeof exec_errno) {
    waitpid(pid, &outcome.wait_status, 0);
    outcome.error = "cannot run " + argv[0] + ": " + std::strerror(exec_errno);
    return outcome;
  }
  outcome.started = true;
  fcntl(in.write, F_SETFL, O_NONBLOCK);
  if (!exchange(pid, input, in.write, out.read, deadline, output_limit, outcome)) {
    kill(-pid, SIGKILL);
    waitpid(pid, &outcome.wait_status, 0);
    outcome.timed_out = true;
  }
  return outcome;
}
