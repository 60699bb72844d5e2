#include "alerts/ExecChannel.h"

#include "platform/VisibleText.h"
#include "alerts/SyslogChannel.h"
#include "alerts/WebhookChannel.h"
#include "util/TimedCommand.h"

SendResult ExecChannel::send(const AlertMessage& message) {
  const CommandOutcome outcome =
      run_timed_command(settings_.command, message.json, std::chrono::seconds(settings_.timeout_seconds));
  if (outcome.succeeded()) return {true, ""};
  if (outcome.timed_out) {
    return {false, "killed at its time limit of " + std::to_string(settings_.timeout_seconds) + " s"};
  }
  return {false, visible_text(outcome.failure())};
}

std::unique_ptr<AlertChannel> AlertChannel::make(const ChannelSettings& settings) {
  switch (settings.kind) {
    case ChannelKind::webhook: return std::make_unique<WebhookChannel>(settings);
    case ChannelKind::exec: return std::make_unique<ExecChannel>(settings);
    case ChannelKind::syslog: break;
  }
  return std::make_unique<SyslogChannel>(settings);
}
