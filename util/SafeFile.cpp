#include "util/SafeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

[[noreturn]] void fail(const std::string& path, int error) {
  throw std::runtime_error("cannot write '" + path + "': " + std::strerror(error));
}

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

mode_t SafeFile::under_umask(mode_t mode) {
  // umask can only be read by setting it; the tools are single-threaded.
  const mode_t mask = ::umask(077);
  ::umask(mask);
  return mode & ~mask;
}

void SafeFile::replace(const std::string& path, std::string_view content, mode_t mode) {
  const std::string pattern = folder_of(path) + "/.tsanomaly.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) fail(path, errno);
  const std::string temporary(name.data());
  bool done = ::fchmod(fd, under_umask(mode)) == 0 && write_all(fd, content) && ::fsync(fd) == 0;
  int error = errno;
  if (::close(fd) != 0 && done) {
    done = false;
    error = errno;
  }
  if (done && ::rename(temporary.c_str(), path.c_str()) != 0) {
    done = false;
    error = errno;
  }
  if (!done) {
    ::unlink(temporary.c_str());
    fail(path, error);
  }
}

void SafeFile::create_new(const std::string& path, mode_t mode) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, under_umask(mode));
  if (fd < 0) fail(path, errno);
  ::close(fd);
}
