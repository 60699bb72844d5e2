// NotifySocket: a real AF_UNIX datagram socket standing in for systemd's
// notification socket. A test binds it, points NOTIFY_SOCKET at it (for
// itself or a child it starts) and reads the messages that arrive.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tsanomaly_test {

class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path);
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  const std::string& path() const { return path_; }
  // The next datagram, or nothing when none arrives within the deadline.
  std::optional<std::string> receive(std::chrono::milliseconds deadline);
  // Every datagram until one contains text (that one included) or the
  // deadline passes.
  std::vector<std::string> receive_until(const std::string& text, std::chrono::milliseconds deadline);

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace tsanomaly_test
