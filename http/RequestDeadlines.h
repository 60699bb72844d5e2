// RequestDeadlines: the time a connection may take to deliver one whole
// request (head and body), however slowly it drips it. A watcher thread
// shuts down the socket of any connection over its deadline; the server that
// owns the socket still closes it. Connections are named by an opaque key and
// must be forgotten (closed()) before their socket is closed. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

class RequestDeadlines {
 public:
  explicit RequestDeadlines(std::chrono::milliseconds allowed);
  ~RequestDeadlines();
  RequestDeadlines(const RequestDeadlines&) = delete;
  RequestDeadlines& operator=(const RequestDeadlines&) = delete;

  // A connection opened, or finished a request: its next one is due now + allowed.
  void waiting(const void* connection, int fd);
  // Its request has arrived whole: no deadline until the next one begins.
  void received(const void* connection);
  void closed(const void* connection);

 private:
  struct Watched {
    int fd;
    bool receiving;
    std::chrono::steady_clock::time_point due;
  };
  void watch();

  const std::chrono::milliseconds allowed_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<const void*, Watched> connections_;
  bool stopping_ = false;
  std::thread watcher_;
};
