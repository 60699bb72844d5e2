#include "http/ListenSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace listen_socket {
namespace {

constexpr int kBacklog = 128;

[[noreturn]] void fail(const ListenAddress& address, const std::string& why) {
  throw std::runtime_error("cannot listen on " + address.host + ":" + std::to_string(address.port) + " (" + why +
                           ")");
}

}  // namespace

int open(const ListenAddress& address) {
  sockaddr_storage storage{};
  socklen_t length = 0;
  const bool v6 = address.host.find(':') != std::string::npos;
  if (v6) {
    auto& in6 = reinterpret_cast<sockaddr_in6&>(storage);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(static_cast<uint16_t>(address.port));
    if (inet_pton(AF_INET6, address.host.c_str(), &in6.sin6_addr) != 1) fail(address, "not an IP address");
    length = sizeof in6;
  } else {
    auto& in4 = reinterpret_cast<sockaddr_in&>(storage);
    in4.sin_family = AF_INET;
    in4.sin_port = htons(static_cast<uint16_t>(address.port));
    if (inet_pton(AF_INET, address.host.c_str(), &in4.sin_addr) != 1) fail(address, "not an IP address");
    length = sizeof in4;
  }
  const int fd = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail(address, std::strerror(errno));
  // For a restart while old connections linger.
  const int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0 || ::listen(fd, kBacklog) != 0) {
    const int error = errno;
    ::close(fd);
    fail(address, error == EADDRINUSE ? "in use" : std::strerror(error));
  }
  return fd;
}

std::optional<int> inherited() {
  const int count = sd_listen_fds(1);
  if (count < 1) return std::nullopt;
  if (count > 1) throw std::runtime_error("systemd passed " + std::to_string(count) + " sockets; the console takes one");
  if (sd_is_socket(SD_LISTEN_FDS_START, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
    throw std::runtime_error("the socket systemd passed is not a listening stream socket");
  }
  return SD_LISTEN_FDS_START;
}

ListenAddress address_of(int fd) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
    throw std::runtime_error(std::string("cannot read the listening socket's address: ") + std::strerror(errno));
  }
  ListenAddress address;
  char text[INET6_ADDRSTRLEN] = {};
  if (storage.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
    inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
    address.port = ntohs(in6.sin6_port);
    address.loopback = IN6_IS_ADDR_LOOPBACK(&in6.sin6_addr);
  } else if (storage.ss_family == AF_INET) {
    const auto& in4 = reinterpret_cast<const sockaddr_in&>(storage);
    inet_ntop(AF_INET, &in4.sin_addr, text, sizeof text);
    address.port = ntohs(in4.sin_port);
    address.loopback = (ntohl(in4.sin_addr.s_addr) >> 24) == 127;
  } else {
    throw std::runtime_error("the listening socket is not an IP socket");
  }
  address.host = text;
  return address;
}

}  // namespace listen_socket
