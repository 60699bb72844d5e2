#include "http/RequestDeadlines.h"

#include <sys/socket.h>

namespace {
// How often the watcher looks; a late connection lives at most this much longer.
constexpr std::chrono::milliseconds kTick{250};
}  // namespace

RequestDeadlines::RequestDeadlines(std::chrono::milliseconds allowed)
    : allowed_(allowed), watcher_([this] { watch(); }) {}

RequestDeadlines::~RequestDeadlines() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  watcher_.join();
}

void RequestDeadlines::waiting(const void* connection, int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  connections_[connection] = Watched{fd, true, std::chrono::steady_clock::now() + allowed_};
}

void RequestDeadlines::received(const void* connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = connections_.find(connection);
  if (found != connections_.end()) found->second.receiving = false;
}

void RequestDeadlines::closed(const void* connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  connections_.erase(connection);
}

// The socket is shut down under the lock, so closed(), which its owner calls
// before closing it, cannot let the descriptor be reused in between.
void RequestDeadlines::watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, kTick, [this] { return stopping_; })) {
    const auto now = std::chrono::steady_clock::now();
    for (auto& [connection, watched] : connections_) {
      if (!watched.receiving || now < watched.due) continue;
      ::shutdown(watched.fd, SHUT_RDWR);
      watched.receiving = false;
    }
  }
}
