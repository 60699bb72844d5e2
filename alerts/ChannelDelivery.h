// ChannelDelivery: one channel's part of an alert cycle. It sends what the
// channel owes (one message each, or one summary when more than
// GROUP_THRESHOLD are due), recording every outcome in the ledger right
// after the send, and on a channel posting to Alertmanager then resolves the
// alerts of anomalies handled since. A failed send postpones the channel's
// due alerts and ends its part. Send problems are logged, not thrown; the
// ledger's storage errors are thrown. It borrows the ledger and the channel.
#pragma once

#include <ctime>

#include "alerts/AlertChannel.h"
#include "alerts/AlertSettings.h"
#include "alerts/DeliveryLedger.h"

class ChannelDelivery {
 public:
  ChannelDelivery(DeliveryLedger& ledger, AlertChannel& channel, const ChannelSettings& settings,
                  const AlertSettings& all)
      : ledger_(ledger), channel_(channel), settings_(settings), all_(all) {}

  void run(time_t now);

 private:
  // false when a send failed (the rest is postponed).
  bool deliver(time_t now);
  void resolve(time_t now);
  bool send_summary(const std::vector<DueAlert>& due, const std::vector<AnomalyAlert>& alerts, time_t now);
  bool send_each(const std::vector<DueAlert>& due, const std::vector<AnomalyAlert>& alerts, time_t now);
  bool failed(const SendResult& result, time_t now);

  DeliveryLedger& ledger_;
  AlertChannel& channel_;
  const ChannelSettings& settings_;
  const AlertSettings& all_;
};
