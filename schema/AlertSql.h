// Every SQL text the alert process and the alert figures run against the
// alert tables (alert_db.sql) and, read-only, the detector's tables. The
// placeholders are numbered where one value is used twice; bind them by
// number.
#pragma once

#include <string>

namespace alert_sql {

// ALERT_DELIVERY.STATE, as the texts below write and test it.
enum class DeliveryState {
  waiting = 0,    // not delivered yet (failed attempts are counted in ATTEMPTS)
  delivered = 1,
  given_up = 2,   // failed for the whole retry window
  withdrawn = 3,  // an operator handled the anomaly before the alert went out
};

// The tables alert_db.sql creates: 3 when none is missing.
inline constexpr const char* kCountLedgerTables =
    "SELECT COUNT(*) AS N FROM sqlite_master WHERE type = 'table' AND name IN ('ALERT_CHANNEL', 'ALERT_DELIVERY', "
    "'ALERT_FIRING')";

inline constexpr const char* kCountAlertTables =
    "SELECT COUNT(*) AS N FROM sqlite_master WHERE type = 'table' AND name IN ('ALERT_CHANNEL', 'ALERT_DELIVERY')";

// ?1 channel, ?2 the first detection time it alerts for.
inline constexpr const char* kRegisterChannel = "INSERT OR IGNORE INTO ALERT_CHANNEL (CHANNEL, SINCE_TIME) VALUES (?1, ?2)";

// ?1 channel, ?2 now: every anomaly the channel has not seen yet, from its
// start on, becomes due at once.
inline constexpr const char* kEnqueueNewAnomalies =
    "INSERT OR IGNORE INTO ALERT_DELIVERY (ANOMALY_UNIQUE_ID, CHANNEL, FIRST_SEEN, NEXT_ATTEMPT) "
    "SELECT A.ANOMALY_UNIQUE_ID, C.CHANNEL, ?2, ?2 FROM ANOMALY_DATA A JOIN ALERT_CHANNEL C ON C.CHANNEL = ?1 "
    "WHERE A.DETECTION_TIME >= C.SINCE_TIME";

// Whether the anomaly with the id in column `id` has been handled: it is
// acknowledged (ANOMALY_STATE not 0), carries a false-positive verdict
// (still in the feedback table, or already folded into the history as a
// user-identified job) or is no longer in the database at all.
inline std::string handled(const std::string& id) {
  return "NOT EXISTS (SELECT 1 FROM ANOMALY_DATA A WHERE A.ANOMALY_UNIQUE_ID = " + id +
         " AND A.ANOMALY_STATE = 0 "
         "AND NOT EXISTS (SELECT 1 FROM ANOMALY_DATA_FEEDBACK F WHERE F.ANOMALY_UNIQUE_ID = A.ANOMALY_UNIQUE_ID "
         "AND F.FEEDBACK = 1) "
         "AND NOT EXISTS (SELECT 1 FROM HIST_DATA H WHERE H.UNIQUE_KEY = A.DETECTION_KEY "
         "AND H.USER_IDENTIFIED_CLUSTER = 1))";
}

// ?1 the reason kept in LAST_ERROR. An alert still waiting is withdrawn once
// its anomaly is handled.
inline const std::string kWithdrawHandledAnomalies =
    "UPDATE ALERT_DELIVERY SET STATE = 3, LAST_ERROR = ?1 WHERE STATE = 0 AND " +
    handled("ALERT_DELIVERY.ANOMALY_UNIQUE_ID");

// ?1 channel, ?2 now, ?3 the most rows, ?4 the largest payload read (a
// larger one reads as empty). Oldest detection first.
inline constexpr const char* kSelectDueAlerts =
    "SELECT D.ANOMALY_UNIQUE_ID, A.CLIENT, A.DETECTION_TIME, "
    "CASE WHEN length(CAST(A.ANOMALY_PAYLOAD AS BLOB)) <= ?4 THEN A.ANOMALY_PAYLOAD ELSE '' END "
    "FROM ALERT_DELIVERY D JOIN ANOMALY_DATA A ON A.ANOMALY_UNIQUE_ID = D.ANOMALY_UNIQUE_ID "
    "WHERE D.CHANNEL = ?1 AND D.STATE = 0 AND D.NEXT_ATTEMPT <= ?2 ORDER BY A.DETECTION_TIME, A.rowid LIMIT ?3";

// ?1 channel, ?2 anomaly id, ?3 now.
inline constexpr const char* kMarkDelivered =
    "UPDATE ALERT_DELIVERY SET STATE = 1, ATTEMPTS = ATTEMPTS + 1, DELIVERED_TIME = ?3, LAST_ERROR = '' "
    "WHERE CHANNEL = ?1 AND ANOMALY_UNIQUE_ID = ?2 AND STATE = 0";

// ?1 channel, ?2 now, ?3 error, ?4 first retry delay in seconds, ?5 the
// longest delay, ?6 the retry window in seconds. Every alert of the channel
// that was due counts one failed attempt: its delay doubles with each
// attempt up to the longest, its last attempt falls at the end of the
// window, and one whose window has passed is given up (STATE 2).
inline constexpr const char* kPostponeDueAlerts =
    "UPDATE ALERT_DELIVERY SET ATTEMPTS = ATTEMPTS + 1, LAST_ERROR = ?3, "
    "STATE = CASE WHEN ?2 >= FIRST_SEEN + ?6 THEN 2 ELSE 0 END, "
    "NEXT_ATTEMPT = MIN(?2 + MIN(?4 << MIN(ATTEMPTS, 20), ?5), FIRST_SEEN + ?6) "
    "WHERE CHANNEL = ?1 AND STATE = 0 AND NEXT_ATTEMPT <= ?2 RETURNING ANOMALY_UNIQUE_ID, STATE";

// ?1 anomaly id, ?2 channel, ?3 the alert as posted to Alertmanager.
inline constexpr const char* kRecordFiring =
    "INSERT OR IGNORE INTO ALERT_FIRING (ANOMALY_UNIQUE_ID, CHANNEL, ALERT) VALUES (?1, ?2, ?3)";

// ?1 channel, ?2 the most rows: its firing alerts whose anomaly is handled.
inline const std::string kSelectHandledFiring =
    "SELECT ANOMALY_UNIQUE_ID, ALERT FROM ALERT_FIRING WHERE CHANNEL = ?1 AND " +
    handled("ALERT_FIRING.ANOMALY_UNIQUE_ID") + " ORDER BY rowid LIMIT ?2";

// ?1 channel, ?2 anomaly id: the alert is resolved.
inline constexpr const char* kForgetFiring = "DELETE FROM ALERT_FIRING WHERE CHANNEL = ?1 AND ANOMALY_UNIQUE_ID = ?2";

// Per channel: delivered, failing (waiting after a failed attempt), given
// up, waiting in all, withdrawn, and the oldest FIRST_SEEN still waiting.
inline constexpr const char* kChannelFigures =
    "SELECT CHANNEL, SUM(STATE = 1), SUM(STATE = 0 AND ATTEMPTS > 0), SUM(STATE = 2), SUM(STATE = 0), "
    "SUM(STATE = 3), MIN(CASE WHEN STATE = 0 THEN FIRST_SEEN END) FROM ALERT_DELIVERY GROUP BY CHANNEL "
    "ORDER BY CHANNEL";

}  // namespace alert_sql
