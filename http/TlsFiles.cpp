#include "http/TlsFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tls_files {
namespace {

[[noreturn]] void refuse(const char* what, const std::string& path, const std::string& why) {
  throw std::runtime_error(std::string("TLS ") + what + " '" + path + "' " + why);
}

void check_private(const std::string& path, const struct stat& st) {
  if (st.st_uid != ::geteuid()) refuse("key", path, "belongs to another user");
  if ((st.st_mode & 077) != 0) refuse("key", path, "may be read by other users; run: chmod 600 " + path);
}

std::string read_file(const char* what, const std::string& path, bool secret) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) refuse(what, path, errno == ELOOP ? "is a symbolic link" : std::string("cannot be read: ") + std::strerror(errno));
  struct stat st {};
  std::string text(kMaxBytes + 1, '\0');
  ssize_t length = -1;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) length = ::read(fd, text.data(), text.size());
  const int error = errno;
  ::close(fd);
  if (!S_ISREG(st.st_mode)) refuse(what, path, "is not a regular file");
  if (secret) check_private(path, st);
  if (length < 0) refuse(what, path, std::string("cannot be read: ") + std::strerror(error));
  if (static_cast<std::size_t>(length) > kMaxBytes) refuse(what, path, "is larger than 256 KiB");
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace

Pem load(const std::string& cert_path, const std::string& key_path) {
  return Pem{read_file("certificate", cert_path, false), read_file("key", key_path, true)};
}

}  // namespace tls_files
