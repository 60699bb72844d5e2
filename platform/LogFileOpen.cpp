#include "platform/LogFileOpen.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// A descriptor of the folder itself, so the checks and the open that
// follows concern the same folder even if the path is swapped meanwhile.
int open_trusted_folder(const std::string& folder) {
  if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return -1;
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir < 0) return -1;
  struct stat st {};
  if (::fstat(dir, &st) != 0 || (st.st_uid != ::geteuid() && st.st_uid != 0)) {
    ::close(dir);
    errno = EPERM;
    return -1;
  }
  return dir;
}

int fail_closing(int fd, int error) {
  ::close(fd);
  errno = error;
  return -1;
}

}  // namespace

int open_log_file(const std::string& folder, const std::string& file_name, int mode) {
  const int dir = open_trusted_folder(folder);
  if (dir < 0) return -1;
  // O_NONBLOCK keeps a planted FIFO from blocking the open; it is cleared
  // once the file is known to be a regular one.
  const int fd = ::openat(dir, file_name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                          static_cast<mode_t>(mode));
  const int open_error = errno;
  ::close(dir);
  if (fd < 0) {
    errno = open_error;
    return -1;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return fail_closing(fd, EPERM);
  if (::fcntl(fd, F_SETFL, O_APPEND) != 0) return fail_closing(fd, errno);
  return fd;
}
