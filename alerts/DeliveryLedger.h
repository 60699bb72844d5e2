// DeliveryLedger: the state of every (anomaly, channel) pair in the alert
// tables of the detector's own database: which anomalies each channel still
// owes, which it delivered, which failed and when to try them again, and
// which of its Alertmanager alerts still fire. Every
// change is one short statement or transaction, never held across a send,
// so the detector's writes wait at most for that. Failures are thrown as the
// storage layer's sqlite_exception or, for a file that is not a detector
// database, std::runtime_error.
#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "storage/DBAccess.h"

struct DueAlert {
  std::string id, client, payload;
  time_t detection_time = 0;
};

// An alert firing in Alertmanager: its anomaly and the element posted.
struct FiringAlert {
  std::string id, alert;
};

class DeliveryLedger {
 public:
  // A failed alert is tried again after retry_seconds, then after twice
  // that, and so on up to kMaxDelaySeconds, until kRetryWindowSeconds after
  // it was first seen; then it is given up.
  static constexpr int kMaxDelaySeconds = 3600;
  static constexpr int kRetryWindowSeconds = 24 * 3600;

  // Creates the alert tables that are missing.
  DeliveryLedger(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db, const std::string& path);

  // The first time a channel is seen it starts with the anomalies detected
  // from since_time on; later calls change nothing.
  void register_channel(const std::string& channel, time_t since_time);
  // Makes every anomaly the channel has not seen yet due now.
  void enqueue_new(const std::string& channel, time_t now);
  // Withdraws waiting alerts of anomalies that operators have handled.
  void withdraw_handled();
  // The channel's alerts due at now, oldest detection first, at most limit.
  std::vector<DueAlert> due(const std::string& channel, time_t now, int limit);
  // Marks the alerts delivered, all or none. firing, when given, holds the
  // Alertmanager element posted for each alert, kept until it is resolved.
  void mark_delivered(const std::string& channel, const std::vector<DueAlert>& alerts, time_t now,
                      const std::vector<std::string>& firing = {});
  // The channel's firing alerts whose anomaly operators have handled since,
  // at most limit.
  std::vector<FiringAlert> handled_firing(const std::string& channel, int limit);
  // Forgets the alerts, resolved in Alertmanager, all or none.
  void forget_firing(const std::string& channel, const std::vector<FiringAlert>& alerts);
  // Counts one failed attempt for every alert of the channel due at now and
  // sets its next attempt; answers the ids given up for good.
  std::vector<std::string> postpone_due(const std::string& channel, time_t now, const std::string& error,
                                        int retry_seconds);

 private:
  // Runs write in one transaction, rolled back when it throws.
  void in_transaction(const std::function<void()>& write);

  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db_;
};
