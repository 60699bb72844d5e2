// SyslogChannel: one line per alert to the local syslog socket (/dev/log,
// where journald or rsyslog listens), in the classic "<PRI>timestamp
// tag[pid]: message" form, with the configured facility and priority. The
// line has no control characters and is cut to a size every syslog daemon
// takes.
#pragma once

#include "alerts/AlertChannel.h"

class SyslogChannel : public AlertChannel {
 public:
  explicit SyslogChannel(const ChannelSettings& settings) : settings_(settings) {}
  SendResult send(const AlertMessage& message) override;

  // The datagram for a line, at time now.
  std::string datagram(const std::string& line, time_t now) const;

 private:
  ChannelSettings settings_;
};
