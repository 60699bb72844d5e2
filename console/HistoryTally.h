// HistoryTally: the two status figures that need a pass over the whole
// history (its rows and its distinct workloads: seconds at millions of
// rows), counted once at start and then again every interval on a thread of
// its own, so no page or scrape waits for them. Readers get the latest
// counts and when they were taken; a failed recount keeps the last ones.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>

#include "operator/StatusFigures.h"

class HistoryTally {
 public:
  using Counts = HistoryCounts;
  using Counter = std::function<Counts()>;

  // Counts once now (throwing what count throws), then starts the thread.
  HistoryTally(Counter count, std::chrono::seconds interval);
  ~HistoryTally();
  HistoryTally(const HistoryTally&) = delete;
  HistoryTally& operator=(const HistoryTally&) = delete;

  Counts latest() const;

 private:
  void refresh_until_stopped();

  Counter count_;
  std::chrono::seconds interval_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  Counts latest_;
  std::thread thread_;
};
