#include "alerts/DeliveryLedger.h"

#include <cstdlib>
#include <stdexcept>

#include "schema/AlertSql.h"
#include "schema/AnomalySchema.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

// A payload larger than this is not the detector's and is not read.
constexpr int kMaxPayloadBytes = 65536;
constexpr const char* kWithdrawnReason =
    "withdrawn: reported as a false positive, acknowledged or removed before the alert went out";

double seconds(time_t t) { return static_cast<double>(t); }

int count(DBAccess& db, const char* sql) {
  Rows rows;
  db.read_data(sql, rows);
  return static_cast<int>(rows[0]["N"]);
}

}  // namespace

DeliveryLedger::DeliveryLedger(DBAccess& db, const std::string& path) : db_(db) {
  // Checked first so that a cycle writes nothing to a complete database.
  if (count(db_, alert_sql::kCountLedgerTables) == 3) return;
  if (count(db_, "SELECT COUNT(*) AS N FROM sqlite_master WHERE type = 'table' AND name = 'ANOMALY_DATA'") != 1) {
    throw std::runtime_error("'" + path + "' has no ANOMALY_DATA table; create it with 'tsanomalyctl init'");
  }
  // Every statement is CREATE ... IF NOT EXISTS: an older database gets only
  // the tables it lacks.
  db_.execute_query(anomaly_schema::alert_db_sql());
}

void DeliveryLedger::in_transaction(const std::function<void()>& write) {
  db_.begin_transaction();
  try {
    write();
    db_.commit_transaction();
  } catch (...) {
    db_.rollback_transaction();
    throw;
  }
}

void DeliveryLedger::register_channel(const std::string& channel, time_t since_time) {
  Statement st(db_.handle, alert_sql::kRegisterChannel);
  st.bind(1, channel);
  st.bind(2, seconds(since_time));
  db_.execute_query_prepared(st);
}

void DeliveryLedger::enqueue_new(const std::string& channel, time_t now) {
  Statement st(db_.handle, alert_sql::kEnqueueNewAnomalies);
  st.bind(1, channel);
  st.bind(2, seconds(now));
  db_.execute_query_prepared(st);
}

void DeliveryLedger::withdraw_handled() {
  Statement st(db_.handle, alert_sql::kWithdrawHandledAnomalies);
  st.bind(1, std::string(kWithdrawnReason));
  db_.execute_query_prepared(st);
}

std::vector<DueAlert> DeliveryLedger::due(const std::string& channel, time_t now, int limit) {
  Statement st(db_.handle, alert_sql::kSelectDueAlerts);
  st.bind(1, channel);
  st.bind(2, seconds(now));
  st.bind(3, limit);
  st.bind(4, kMaxPayloadBytes);
  std::vector<DueAlert> alerts;
  db_.visit_records_prepared(st, [&](const auto& cursor) {
    DueAlert& alert = alerts.emplace_back();
    alert.id = cursor.text(0);
    alert.client = cursor.text(1);
    alert.detection_time = static_cast<time_t>(std::strtoll(cursor.text(2), nullptr, 10));
    alert.payload = cursor.text(3);
  });
  return alerts;
}

void DeliveryLedger::mark_delivered(const std::string& channel, const std::vector<DueAlert>& alerts, time_t now,
                                    const std::vector<std::string>& firing) {
  in_transaction([&] {
    for (std::size_t i = 0; i < alerts.size(); ++i) {
      Statement st(db_.handle, alert_sql::kMarkDelivered);
      st.bind(1, channel);
      st.bind(2, alerts[i].id);
      st.bind(3, seconds(now));
      db_.execute_query_prepared(st);
      if (i >= firing.size()) continue;
      Statement record(db_.handle, alert_sql::kRecordFiring);
      record.bind(1, alerts[i].id);
      record.bind(2, channel);
      record.bind(3, firing[i]);
      db_.execute_query_prepared(record);
    }
  });
}

std::vector<FiringAlert> DeliveryLedger::handled_firing(const std::string& channel, int limit) {
  Statement st(db_.handle, alert_sql::kSelectHandledFiring);
  st.bind(1, channel);
  st.bind(2, limit);
  std::vector<FiringAlert> alerts;
  db_.visit_records_prepared(st, [&](const auto& cursor) { alerts.push_back({cursor.text(0), cursor.text(1)}); });
  return alerts;
}

void DeliveryLedger::forget_firing(const std::string& channel, const std::vector<FiringAlert>& alerts) {
  in_transaction([&] {
    for (const FiringAlert& alert : alerts) {
      Statement st(db_.handle, alert_sql::kForgetFiring);
      st.bind(1, channel);
      st.bind(2, alert.id);
      db_.execute_query_prepared(st);
    }
  });
}

std::vector<std::string> DeliveryLedger::postpone_due(const std::string& channel, time_t now,
                                                      const std::string& error, int retry_seconds) {
  Statement st(db_.handle, alert_sql::kPostponeDueAlerts);
  st.bind(1, channel);
  st.bind(2, seconds(now));
  st.bind(3, error);
  st.bind(4, retry_seconds);
  st.bind(5, kMaxDelaySeconds);
  st.bind(6, kRetryWindowSeconds);
  std::vector<std::string> given_up;
  db_.visit_records_prepared(st, [&](const auto& cursor) {
    if (std::strtol(cursor.text(1), nullptr, 10) == static_cast<int>(alert_sql::DeliveryState::given_up)) {
      given_up.push_back(cursor.text(0));
    }
  });
  return given_up;
}
