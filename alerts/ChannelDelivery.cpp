#include "alerts/ChannelDelivery.h"

#include "alerts/AlertLog.h"
#include "platform/StopSignal.h"

namespace {

// Alerts read per round of a channel; a larger backlog takes more rounds.
constexpr int kBatch = 500;

std::vector<AnomalyAlert> alerts_of(const std::vector<DueAlert>& due, const std::string& console_url) {
  std::vector<AnomalyAlert> alerts;
  for (const DueAlert& d : due) {
    alerts.push_back(AnomalyAlert::from_row(d.id, d.client, d.detection_time, d.payload, console_url));
  }
  return alerts;
}

bool posts_to_alertmanager(const ChannelSettings& settings) {
  return settings.kind == ChannelKind::webhook && settings.format == WebhookFormat::Alertmanager;
}

// What the ledger keeps of a delivered message to resolve it later: its
// Alertmanager elements, on a channel that posts them; nothing elsewhere.
std::vector<std::string> firing(const ChannelSettings& settings, const AlertMessage& message) {
  return posts_to_alertmanager(settings) ? message.alertmanager : std::vector<std::string>{};
}

}  // namespace

void ChannelDelivery::run(time_t now) {
  // Resolving waits while the channel cannot take new alerts either.
  if (deliver(now) && posts_to_alertmanager(settings_)) resolve(now);
}

bool ChannelDelivery::failed(const SendResult& result, time_t now) {
  const std::string channel = settings_.name();
  alert_log::error(channel + ": delivery failed: " + result.error + "; trying again in " +
                   std::to_string(all_.retry_seconds) + " s or later");
  for (const std::string& id : ledger_.postpone_due(channel, now, result.error, all_.retry_seconds)) {
    alert_log::error(channel + ": gave up alerting anomaly " + id + " after trying for " +
                     std::to_string(DeliveryLedger::kRetryWindowSeconds / 3600) + " h: " + result.error);
  }
  return false;
}

bool ChannelDelivery::send_summary(const std::vector<DueAlert>& due, const std::vector<AnomalyAlert>& alerts,
                                   time_t now) {
  const AlertMessage message = AlertMessage::summary(alerts);
  const SendResult result = channel_.send(message);
  if (!result.delivered) return failed(result, now);
  ledger_.mark_delivered(settings_.name(), due, std::time(nullptr), firing(settings_, message));
  alert_log::info(settings_.name() + ": one summary alert for " + std::to_string(due.size()) + " anomalies delivered");
  return true;
}

bool ChannelDelivery::send_each(const std::vector<DueAlert>& due, const std::vector<AnomalyAlert>& alerts,
                                time_t now) {
  for (std::size_t i = 0; i < due.size(); ++i) {
    if (StopSignal::requested()) return true;
    const AlertMessage message = AlertMessage::for_anomaly(alerts[i]);
    const SendResult result = channel_.send(message);
    if (!result.delivered) return failed(result, now);
    ledger_.mark_delivered(settings_.name(), {due[i]}, std::time(nullptr), firing(settings_, message));
  }
  alert_log::info(settings_.name() + ": " + std::to_string(due.size()) + " alerts delivered");
  return true;
}

bool ChannelDelivery::deliver(time_t now) {
  for (;;) {
    const std::vector<DueAlert> due = ledger_.due(settings_.name(), now, kBatch);
    if (due.empty() || StopSignal::requested()) return true;
    const std::vector<AnomalyAlert> alerts = alerts_of(due, all_.console_url);
    const bool sent = static_cast<int>(due.size()) > all_.group_threshold ? send_summary(due, alerts, now)
                                                                           : send_each(due, alerts, now);
    if (!sent) return false;
    if (static_cast<int>(due.size()) < kBatch) return true;
  }
}

void ChannelDelivery::resolve(time_t now) {
  for (;;) {
    const std::vector<FiringAlert> handled = ledger_.handled_firing(settings_.name(), kBatch);
    if (handled.empty() || StopSignal::requested()) return;
    std::vector<std::string> elements;
    for (const FiringAlert& alert : handled) elements.push_back(alert.alert);
    const SendResult result = channel_.send(AlertMessage::resolved(elements, now));
    if (!result.delivered) {
      // Tried again next cycle: a verdict never expires, so neither does this.
      alert_log::error(settings_.name() + ": resolving " + std::to_string(handled.size()) +
                       " alerts failed: " + result.error);
      return;
    }
    ledger_.forget_firing(settings_.name(), handled);
    alert_log::info(settings_.name() + ": " + std::to_string(handled.size()) + " alerts resolved after a verdict");
    if (static_cast<int>(handled.size()) < kBatch) return;
  }
}
