// AlertChannel: one way of getting an alert to people (a webhook, a script,
// syslog). send() blocks for at most the channel's own time limit and
// reports the outcome instead of throwing, so the caller can keep state for
// each channel and one broken channel never stops the others.
#pragma once

#include <memory>
#include <string>

#include "alerts/AlertMessage.h"
#include "alerts/AlertSettings.h"

struct SendResult {
  bool delivered = false;
  std::string error;  // why not, one line for the log and the ledger
};

class AlertChannel {
 public:
  virtual ~AlertChannel() = default;
  virtual SendResult send(const AlertMessage& message) = 0;

  // The channel for usable settings (see ChannelSettings::usable()).
  static std::unique_ptr<AlertChannel> make(const ChannelSettings& settings);
};
