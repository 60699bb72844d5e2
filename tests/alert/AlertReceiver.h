// AlertReceiver: a small HTTP server on 127.0.0.1 for the alert tests. It
// records every request it gets (body, Authorization header, alert key) and
// answers with the status the test chooses, optionally after a delay. It
// can be stopped and started again on the same port, to play a receiver
// that is down for a while.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

namespace tsanomaly_test {

struct ReceivedAlert {
  std::string body, authorization, key, content_type;
  std::chrono::steady_clock::time_point arrived;
};

class AlertReceiver {
 public:
  AlertReceiver();
  ~AlertReceiver();

  // Listens on port (0: any free one) and answers on a thread of its own.
  void start(int port = 0);
  void stop();
  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/hook"; }

  void answer_with(int status) { status_ = status; }
  void delay_answers(std::chrono::milliseconds delay) { delay_ms_ = static_cast<int>(delay.count()); }
  std::vector<ReceivedAlert> received() const;
  // Waits until at least count requests have arrived; false at the deadline.
  bool wait_for(std::size_t count, std::chrono::milliseconds deadline) const;

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> status_{200};
  std::atomic<int> delay_ms_{0};
  mutable std::mutex mutex_;
  std::vector<ReceivedAlert> received_;
};

}  // namespace tsanomaly_test
