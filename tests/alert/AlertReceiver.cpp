#include "tests/alert/AlertReceiver.h"

#include <httplib.h>

#include <stdexcept>

namespace tsanomaly_test {

AlertReceiver::AlertReceiver() = default;
AlertReceiver::~AlertReceiver() { stop(); }

void AlertReceiver::start(int port) {
  server_ = std::make_unique<httplib::Server>();
  server_->Post("/hook", [this](const httplib::Request& request, httplib::Response& response) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.push_back({request.body, request.get_header_value("Authorization"),
                           request.get_header_value("X-Tsanomaly-Alert-Key"), request.get_header_value("Content-Type"),
                           std::chrono::steady_clock::now()});
    }
    if (delay_ms_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms_.load()));
    response.status = status_;
    response.set_content("ok", "text/plain");
  });
  if (port == 0) {
    port_ = server_->bind_to_any_port("127.0.0.1");
  } else if (server_->bind_to_port("127.0.0.1", port)) {
    port_ = port;
  } else {
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port));
  }
  // Bound means listening: connections queue until the loop accepts them.
  thread_ = std::thread([this] { server_->listen_after_bind(); });
}

void AlertReceiver::stop() {
  if (!server_) return;
  server_->stop();
  if (thread_.joinable()) thread_.join();
  server_.reset();
}

std::vector<ReceivedAlert> AlertReceiver::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

bool AlertReceiver::wait_for(std::size_t count, std::chrono::milliseconds deadline) const {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (std::chrono::steady_clock::now() < end) {
    if (received().size() >= count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return received().size() >= count;
}

}  // namespace tsanomaly_test
