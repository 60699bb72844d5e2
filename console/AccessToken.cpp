#include "console/AccessToken.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "util/SafeFile.h"

namespace access_token {
namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::size_t kMinLength = 16;
constexpr std::size_t kMaxLength = 256;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error("token file '" + path + "' " + why);
}

// The token's characters travel in a URL and a header: letters, digits and
// "-._~" need no escaping in either.
bool token_character(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_' || c == '~';
}

std::string read_token(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) refuse(path, errno == ELOOP ? "is a symbolic link" : std::string("cannot be read: ") + std::strerror(errno));
  struct stat st {};
  std::string text(kMaxLength + 2, '\0');
  ssize_t length = -1;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) length = ::read(fd, text.data(), text.size());
  ::close(fd);
  if (!S_ISREG(st.st_mode)) refuse(path, "is not a regular file");
  if (st.st_uid != ::geteuid()) refuse(path, "belongs to another user");
  if ((st.st_mode & 077) != 0) refuse(path, "may be read by other users; run: chmod 600 " + path);
  if (length < 0) refuse(path, std::string("cannot be read: ") + std::strerror(errno));
  text.resize(static_cast<std::size_t>(length));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (text.size() < kMinLength || text.size() > kMaxLength) {
    refuse(path, "must hold one token of 16 to 256 characters");
  }
  for (const char c : text) {
    if (!token_character(c)) refuse(path, "holds a character other than letters, digits and -._~");
  }
  return text;
}

}  // namespace

std::string random_hex(std::size_t n) {
  std::string bytes(n, '\0');
  std::size_t got = 0;
  while (got < n) {
    const ssize_t r = ::getrandom(bytes.data() + got, n - got, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) throw std::runtime_error(std::string("no random bytes: ") + std::strerror(errno));
    got += static_cast<std::size_t>(r);
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * n);
  for (const char byte : bytes) {
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[static_cast<unsigned char>(byte) & 0xF];
  }
  return hex;
}

Loaded load_or_create(const std::string& path) {
  Loaded loaded;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
    SafeFile::replace(path, random_hex(kTokenBytes) + "\n", 0600);
    loaded.created = true;
  }
  loaded.token = read_token(path);
  return loaded;
}

std::string read(const std::string& path) { return read_token(path); }

bool equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace access_token
