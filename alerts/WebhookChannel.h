// WebhookChannel: POSTs each alert to a URL through libcurl, as our JSON
// document, as a chat tool's {"text": ...} or as Alertmanager's list of
// alerts (the chat text escaped as Slack's markup asks, so nothing in it is
// a link or a mention). Only http and https, no
// redirects, certificates and host names verified, the whole exchange within
// the configured time limit; any 2xx answer is a delivery.
#pragma once

#include "alerts/AlertChannel.h"

class WebhookChannel : public AlertChannel {
 public:
  explicit WebhookChannel(const ChannelSettings& settings) : settings_(settings) {}
  SendResult send(const AlertMessage& message) override;

  // The request body for the configured format.
  static std::string body(WebhookFormat format, const AlertMessage& message);

 private:
  ChannelSettings settings_;
};
