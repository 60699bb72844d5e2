#include "util/Process.h"

#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Process.h>
#include <fcntl.h>
#include <sys/wait.h>

namespace {

constexpr std::size_t kShortCommandLineBuffer = 2048;
constexpr std::size_t kLongestShortArguments = 1024;
constexpr std::size_t kEnvironmentBuffer = 16384;
constexpr std::size_t kMaxEnvironmentEntries = 512;
constexpr std::size_t kMaxCommandLineArguments = 128;

}  // namespace

Process::Process(const std::string& program, const std::string& arguments)
    : program_(program), arguments_(arguments) {}

void Process::redirect_to_file(const std::string& path) {
  redirect_ = true;
  redirect_file_ = path;
}

std::size_t Process::command_line_buffer_length(const std::string& arguments) {
  return arguments.size() <= kLongestShortArguments ? kShortCommandLineBuffer : 2 * arguments.size();
}

void Process::start() {
  ACE_Process_Options options(true, command_line_buffer_length(arguments_), kEnvironmentBuffer,
                              kMaxEnvironmentEntries, kMaxCommandLineArguments);
  const std::string command_line = program_ + " " + arguments_;
  options.command_line("%s", command_line.c_str());

  // The file is opened without truncation: output is written over an older,
  // longer file from its start, and that file's tail remains.
  ACE_HANDLE output = 0;
  if (redirect_) {
    output = ACE_OS::open(redirect_file_.c_str(), O_RDWR | O_CREAT, 0644);
    options.set_handles(0, output, output);
  }

  ACE_Process child;
  const pid_t pid = child.spawn(options);
  int status = exit_code_;
  // A failed spawn returns -1, and waitpid(-1) would reap any child of ours.
  if (pid > 0 && waitpid(pid, &status, 0) == pid) {
    exit_code_ = status;
  }
  if (output != 0) {
    ACE_OS::close(output);
  }
}
