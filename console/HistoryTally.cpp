#include "console/HistoryTally.h"

#include <exception>
#include <iostream>

#include "operator/ErrorText.h"

HistoryTally::HistoryTally(Counter count, std::chrono::seconds interval)
    : count_(std::move(count)), interval_(interval), latest_(count_()) {
  thread_ = std::thread([this] { refresh_until_stopped(); });
}

HistoryTally::~HistoryTally() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

HistoryTally::Counts HistoryTally::latest() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return latest_;
}

void HistoryTally::refresh_until_stopped() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, interval_, [this] { return stopping_; })) {
    lock.unlock();
    try {
      const Counts fresh = count_();
      lock.lock();
      latest_ = fresh;
    } catch (const std::exception& e) {
      std::cerr << "tsanomalyctl serve: counting the history failed, keeping the last counts: " << ErrorText::of(e)
                << "\n";
      lock.lock();
    }
  }
}
