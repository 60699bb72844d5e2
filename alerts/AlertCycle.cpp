#include "alerts/AlertCycle.h"

#include <sqlite3.h>

#include <chrono>

#include "contract/BusyTimeout.h"
#include "storage/DBAccess.h"
#include "operator/ErrorText.h"
#include "alerts/AlertChannel.h"
#include "alerts/AlertLog.h"
#include "alerts/ChannelDelivery.h"
#include "alerts/DeliveryLedger.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

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

void AlertCycle::with_ledger(const std::function<void(DeliveryLedger&)>& use) {
  try {
    // One connection per thread: SQLite serialises their short writes.
    DBAccess db(database_path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW);
    // The detector may be writing; our statements are short, so are its waits.
    db.set_busy_timeout(kBusyTimeoutMs);
    DeliveryLedger ledger(db, database_path_);
    use(ledger);
  } catch (const std::exception& e) {
    alert_log::error("cannot use the database '" + database_path_ + "': " + ErrorText::of(e));
    ok_ = false;
  }
}

bool AlertCycle::busy(const std::string& channel) const {
  const auto delivery = deliveries_.find(channel);
  return delivery != deliveries_.end() && delivery->second.valid() &&
         delivery->second.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

void AlertCycle::start_delivery(const ChannelSettings& channel, const AlertSettings& all, time_t now) {
  // The thread owns copies: the next cycle may read other settings meanwhile.
  deliveries_[channel.name()] = std::async(std::launch::async, [this, channel, all, now] {
    with_ledger([&](DeliveryLedger& ledger) {
      const auto sender = AlertChannel::make(channel);
      ChannelDelivery(ledger, *sender, channel, all).run(now);
    });
  });
}

AlertSettings AlertCycle::run(time_t now) {
  AlertSettings settings = AlertSettings::read(config_path_);
  note_problems(settings);
  ok_ = true;
  if (!settings.enabled) return settings;
  with_ledger([&](DeliveryLedger& ledger) {
    for (const ChannelSettings& channel : settings.channels) {
      if (!channel.usable()) continue;
      ledger.register_channel(channel.name(), now - static_cast<time_t>(settings.since_hours) * 3600);
      ledger.enqueue_new(channel.name(), now);
    }
    ledger.withdraw_handled();
  });
  if (!ok_) return settings;
  for (const ChannelSettings& channel : settings.channels) {
    if (channel.usable() && !busy(channel.name())) start_delivery(channel, settings, now);
  }
  return settings;
}

void AlertCycle::wait() {
  for (auto& [name, delivery] : deliveries_) {
    if (delivery.valid()) delivery.wait();
  }
}
