#include "alerts/SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/VisibleText.h"

namespace secret_file {
namespace {

// The file a credential name stands for; empty with error set when the
// name or the environment does not allow one.
std::string credential_path(const std::string& key, const std::string& name, std::string& error) {
  const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (name.find('/') != std::string::npos || name == "." || name == "..") {
    error = key + " '" + visible_text(name) + "' is neither an absolute path nor a credential name";
  } else if (directory == nullptr || directory[0] != '/') {
    error = key + " names the credential '" + visible_text(name) +
            "', but the process got no credentials (LoadCredential= in its unit)";
  } else {
    return std::string(directory) + "/" + name;
  }
  return "";
}

std::string cannot_read() { return std::string("cannot be read: ") + std::strerror(errno); }

// Why the opened file may not hold a secret; empty when it may.
std::string refusal(const struct stat& st) {
  if (!S_ISREG(st.st_mode)) return "is not a regular file";
  if (st.st_uid != 0 && st.st_uid != ::geteuid()) return "belongs to a user other than root or this process's";
  if ((st.st_mode & S_IRWXO) != 0) return "may be read or changed by every user; run: chmod o-rwx on it";
  if ((st.st_mode & S_IRWXG) != 0 && st.st_gid != 0 && st.st_gid != ::getegid()) {
    return "may be read or changed by a group other than root's or this process's";
  }
  if (st.st_size > static_cast<off_t>(kMaxBytes)) return "is larger than " + std::to_string(kMaxBytes) + " bytes";
  return "";
}

// The first line, without its end; error set when it is not one line of
// printable text.
std::string first_line(std::string text, const std::string& named, std::string& error) {
  text = text.substr(0, text.find('\n'));
  while (!text.empty() && (text.back() == '\r' || text.back() == ' ' || text.back() == '\t')) text.pop_back();
  if (text.empty()) error = named + " is empty";
  if (visible_text(text) != text) error = named + " holds a control or invisible character";
  return error.empty() ? text : "";
}

}  // namespace

Secret read(const std::string& key, const std::string& where) {
  Secret secret;
  const std::string path = where.starts_with('/') ? where : credential_path(key, where, secret.error);
  if (path.empty()) return secret;
  const std::string named = key + " '" + visible_text(path) + "'";
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    secret.error = named + " " + (errno == ELOOP ? "is a symbolic link" : cannot_read());
    return secret;
  }
  struct stat st {};
  std::string why = ::fstat(fd, &st) == 0 ? refusal(st) : cannot_read();
  std::string text(kMaxBytes, '\0');
  const ssize_t length = why.empty() ? ::read(fd, text.data(), text.size()) : 0;
  if (length < 0) why = cannot_read();
  ::close(fd);
  if (!why.empty()) {
    secret.error = named + " " + why;
    return secret;
  }
  text.resize(static_cast<std::size_t>(length));
  secret.text = first_line(std::move(text), named, secret.error);
  return secret;
}

}  // namespace secret_file
