#include "tests/support/NotifySocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace tsanomaly_test {

NotifySocket::NotifySocket(const std::string& path) : path_(path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long: " + path);
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind " + path);
  }
}

NotifySocket::~NotifySocket() {
  if (fd_ >= 0) close(fd_);
  unlink(path_.c_str());
}

std::optional<std::string> NotifySocket::receive(std::chrono::milliseconds deadline) {
  pollfd ready{fd_, POLLIN, 0};
  if (poll(&ready, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
  char buffer[4096];
  const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
  if (n < 0) return std::nullopt;
  return std::string(buffer, static_cast<std::size_t>(n));
}

std::vector<std::string> NotifySocket::receive_until(const std::string& text, std::chrono::milliseconds deadline) {
  std::vector<std::string> messages;
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (std::chrono::steady_clock::now() < end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    const std::optional<std::string> message = receive(left);
    if (!message) break;
    messages.push_back(*message);
    if (message->find(text) != std::string::npos) break;
  }
  return messages;
}

}  // namespace tsanomaly_test
