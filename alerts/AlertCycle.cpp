#include "alerts/AlertCycle.h"

#include <sqlite3.h>

#include "contract/BusyTimeout.h"
#include "platform/StopSignal.h"
#include "storage/DBAccess.h"
#include "operator/ErrorText.h"
#include "alerts/AlertChannel.h"
#include "alerts/AlertLog.h"
#include "alerts/DeliveryLedger.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

namespace {

// Alerts read per round of a channel; a larger backlog takes more rounds.
constexpr int kBatch = 500;
// The detector may be writing; our statements are short, so are its waits.

std::vector<AnomalyAlert> alerts_of(const std::vector<DueAlert>& due, const std::string& console_url) {
  std::vector<AnomalyAlert> alerts;
  for (const DueAlert& d : due) {
    alerts.push_back(AnomalyAlert::from_row(d.id, d.client, d.detection_time, d.payload, console_url));
  }
  return alerts;
}

void postpone(DeliveryLedger& ledger, const std::string& channel, time_t now, const std::string& error,
              int retry_seconds) {
  alert_log::error(channel + ": delivery failed: " + error + "; trying again in " + std::to_string(retry_seconds) +
                   " s or later");
  for (const std::string& id : ledger.postpone_due(channel, now, error, retry_seconds)) {
    alert_log::error(channel + ": gave up alerting anomaly " + id + " after trying for " +
                     std::to_string(DeliveryLedger::kRetryWindowSeconds / 3600) + " h: " + error);
  }
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

AlertCycle::AlertCycle(std::string database_path, std::string config_path)
    : database_path_(std::move(database_path)), config_path_(std::move(config_path)) {}

void AlertCycle::note_problems(const AlertSettings& settings) {
  std::set<std::string> problems(settings.warnings.begin(), settings.warnings.end());
  for (const ChannelSettings& channel : settings.channels) {
    if (!channel.usable()) problems.insert(channel.name() + " channel not used: " + channel.error);
  }
  if (!settings.enabled) problems.insert("alerts are off: [ANOMALY_DETECTION_FUNCTIONALITY] DISABLE_ALERT_SERVICE is not 0");
  if (settings.enabled && settings.channels.empty()) problems.insert("alerts are on but no channel is configured");
  for (const std::string& problem : problems) {
    if (known_problems_.count(problem) == 0) alert_log::error(problem);
  }
  known_problems_ = std::move(problems);
}

bool AlertCycle::deliver(DeliveryLedger& ledger, AlertChannel& channel, const ChannelSettings& settings,
                         const AlertSettings& all, time_t now) {
  const auto failed = [&](const SendResult& result) {
    postpone(ledger, settings.name(), now, result.error, all.retry_seconds);
    return false;
  };
  for (;;) {
    const std::vector<DueAlert> due = ledger.due(settings.name(), now, kBatch);
    if (due.empty() || StopSignal::requested()) return true;
    const std::vector<AnomalyAlert> alerts = alerts_of(due, all.console_url);
    if (static_cast<int>(due.size()) > all.group_threshold) {
      const AlertMessage message = AlertMessage::summary(alerts);
      const SendResult result = channel.send(message);
      if (!result.delivered) return failed(result);
      ledger.mark_delivered(settings.name(), due, std::time(nullptr), firing(settings, message));
      alert_log::info(settings.name() + ": one summary alert for " + std::to_string(due.size()) + " anomalies delivered");
    } else {
      for (std::size_t i = 0; i < due.size(); ++i) {
        if (StopSignal::requested()) return true;
        const AlertMessage message = AlertMessage::for_anomaly(alerts[i]);
        const SendResult result = channel.send(message);
        if (!result.delivered) return failed(result);
        ledger.mark_delivered(settings.name(), {due[i]}, std::time(nullptr), firing(settings, message));
      }
      alert_log::info(settings.name() + ": " + std::to_string(due.size()) + " alerts delivered");
    }
    if (static_cast<int>(due.size()) < kBatch) return true;
  }
}

void AlertCycle::resolve(DeliveryLedger& ledger, AlertChannel& channel, const ChannelSettings& settings, time_t now) {
  for (;;) {
    const std::vector<FiringAlert> handled = ledger.handled_firing(settings.name(), kBatch);
    if (handled.empty() || StopSignal::requested()) return;
    std::vector<std::string> elements;
    for (const FiringAlert& alert : handled) elements.push_back(alert.alert);
    const SendResult result = channel.send(AlertMessage::resolved(elements, now));
    if (!result.delivered) {
      // Tried again next cycle: a verdict never expires, so neither does this.
      alert_log::error(settings.name() + ": resolving " + std::to_string(handled.size()) +
                       " alerts failed: " + result.error);
      return;
    }
    ledger.forget_firing(settings.name(), handled);
    alert_log::info(settings.name() + ": " + std::to_string(handled.size()) + " alerts resolved after a verdict");
    if (static_cast<int>(handled.size()) < kBatch) return;
  }
}

AlertSettings AlertCycle::run(time_t now) {
  AlertSettings settings = AlertSettings::read(config_path_);
  note_problems(settings);
  ok_ = true;
  if (!settings.enabled) return settings;
  try {
    DBAccess db(database_path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW);
    db.set_busy_timeout(kBusyTimeoutMs);
    DeliveryLedger ledger(db, database_path_);
    for (const ChannelSettings& channel : settings.channels) {
      if (!channel.usable()) continue;
      ledger.register_channel(channel.name(), now - static_cast<time_t>(settings.since_hours) * 3600);
      ledger.enqueue_new(channel.name(), now);
    }
    ledger.withdraw_handled();
    for (const ChannelSettings& channel_settings : settings.channels) {
      if (!channel_settings.usable()) continue;
      const auto channel = AlertChannel::make(channel_settings);
      // Resolving waits while the channel cannot take new alerts either.
      if (deliver(ledger, *channel, channel_settings, settings, now) && posts_to_alertmanager(channel_settings)) {
        resolve(ledger, *channel, channel_settings, now);
      }
    }
  } catch (const std::exception& e) {
    alert_log::error("cannot use the database '" + database_path_ + "': " + ErrorText::of(e));
    ok_ = false;
  }
  return settings;
}
