// AlertCycle: one round of the alert process. It reads the configuration
// afresh, finds the anomalies each configured channel has not alerted yet,
// withdraws those operators have already handled, and starts each usable
// channel's delivery (ChannelDelivery) on a thread and a database connection
// of its own, so a slow or hanging receiver delays only its own channel. A
// channel still busy from an earlier cycle is left to finish: there is never
// more than one delivery per channel, hence at most one thread per kind of
// channel. Problems are logged, not thrown; a configuration problem is
// logged when it first appears, not at every cycle. Destroying the cycle
// waits for the deliveries it started.
#pragma once

#include <atomic>
#include <ctime>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>

#include "alerts/AlertSettings.h"

class DeliveryLedger;

class AlertCycle {
 public:
  AlertCycle(std::string database_path, std::string config_path);

  // Starts one cycle at now and answers the settings it read (the caller
  // takes the interval to the next cycle from them). It returns once the
  // deliveries are started, not done: wait() for them.
  AlertSettings run(time_t now);
  // Waits until every delivery started has ended.
  void wait();
  // false when the database could not be used since the last run().
  bool ok() const { return ok_; }

 private:
  void note_problems(const AlertSettings& settings);
  // Opens the database and its ledger for use; a failure is logged and
  // clears ok().
  void with_ledger(const std::function<void(DeliveryLedger&)>& use);
  bool busy(const std::string& channel) const;
  void start_delivery(const ChannelSettings& channel, const AlertSettings& all, time_t now);

  std::string database_path_;
  std::string config_path_;
  std::set<std::string> known_problems_;
  std::atomic<bool> ok_ = true;
  // Each channel's delivery in progress or done, by channel name.
  std::map<std::string, std::future<void>> deliveries_;
};
