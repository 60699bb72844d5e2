// ExecChannel: runs the operator's own program for each alert, without a
// shell, with our JSON document on its standard input. Exit status 0 is a
// delivery; anything else, or running past the time limit (the program and
// its process group are then killed), is a failure that carries the start
// of its output.
#pragma once

#include "alerts/AlertChannel.h"

class ExecChannel : public AlertChannel {
 public:
  explicit ExecChannel(const ChannelSettings& settings) : settings_(settings) {}
  SendResult send(const AlertMessage& message) override;

 private:
  ChannelSettings settings_;
};
