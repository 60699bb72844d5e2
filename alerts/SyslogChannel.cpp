#include "alerts/SyslogChannel.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/VisibleText.h"
#include "util/Text.h"

namespace {

// Well below the 2048 bytes every syslog daemon accepts in a datagram.
constexpr std::size_t kMaxLine = 1800;

std::string cut(const std::string& line) {
  if (line.size() <= kMaxLine) return line;
  std::size_t end = 0;
  while (end < line.size()) {
    const std::size_t length = std::max<std::size_t>(1, text::utf8_sequence_length(line, end));
    if (end + length > kMaxLine) break;
    end += length;
  }
  return line.substr(0, end);
}

}  // namespace

std::string SyslogChannel::datagram(const std::string& line, time_t now) const {
  struct tm parts {};
  localtime_r(&now, &parts);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &parts);
  return "<" + std::to_string(settings_.facility * 8 + settings_.severity) + ">" + stamp + " tsanomalyalert[" +
         std::to_string(getpid()) + "]: " + cut(visible_text(line));
}

SendResult SyslogChannel::send(const AlertMessage& message) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (settings_.socket_path.size() >= sizeof address.sun_path) return {false, "SOCKET path is too long"};
  std::memcpy(address.sun_path, settings_.socket_path.c_str(), settings_.socket_path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return {false, std::string("cannot open a socket: ") + std::strerror(errno)};
  const std::string data = datagram(message.line, std::time(nullptr));
  const ssize_t sent = sendto(fd, data.data(), data.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
                              sizeof address);
  const int saved = errno;
  close(fd);
  if (sent != static_cast<ssize_t>(data.size())) {
    return {false, "cannot send to " + visible_text(settings_.socket_path) + ": " + std::strerror(saved)};
  }
  return {true, ""};
}
