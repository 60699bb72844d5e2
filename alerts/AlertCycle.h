// AlertCycle: one round of the alert process. It reads the configuration
// afresh, finds the anomalies each configured channel has not alerted yet,
// withdraws those operators have already handled, and sends the rest (one
// message each, or one summary when more than GROUP_THRESHOLD are due),
// recording every outcome in the ledger right after the send. On a channel
// posting to Alertmanager it then resolves the alerts of anomalies handled
// since. A channel that fails is postponed on its own; the others go on. Problems are
// logged, not thrown; a configuration problem is logged when it first
// appears, not at every cycle.
#pragma once

#include <ctime>
#include <set>
#include <string>

#include "alerts/AlertSettings.h"

class AlertCycle {
 public:
  AlertCycle(std::string database_path, std::string config_path);

  // Runs one cycle at now and answers the settings it read (the caller takes
  // the interval to the next cycle from them). false in ok() when the
  // database could not be used.
  AlertSettings run(time_t now);
  bool ok() const { return ok_; }

 private:
  void note_problems(const AlertSettings& settings);
  // false when a send failed (the rest is postponed).
  bool deliver(class DeliveryLedger& ledger, class AlertChannel& channel, const ChannelSettings& settings,
               const AlertSettings& all, time_t now);
  void resolve(DeliveryLedger& ledger, AlertChannel& channel, const ChannelSettings& settings, time_t now);

  std::string database_path_;
  std::string config_path_;
  std::set<std::string> known_problems_;
  bool ok_ = true;
};
