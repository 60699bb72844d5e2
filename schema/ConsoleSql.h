// The SQL texts of the operator's views of a detector database: the status
// figures that tsanomalyctl status, the console's status page and its
// metrics share, and the console's anomaly list, anomaly states and
// verdicts. Reads run on read-only connections; the two verdict writes run
// inside one short BEGIN IMMEDIATE transaction each. Every name, date and
// id a request carries is a bound parameter, never part of a text.
#pragma once

#include <string>

#include "contract/PayloadMembers.h"
#include "contract/WorkloadKey.h"

namespace console_sql {

// Status figures: each yields one row with one column named N.
inline constexpr const char* kPendingJobs = "SELECT COUNT(*) AS N FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0";
inline constexpr const char* kAwaitingVerdict =
    "SELECT COUNT(*) AS N FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 1";
inline constexpr const char* kHistoryRows = "SELECT COUNT(*) AS N FROM HIST_DATA";
inline const std::string kWorkloads =
    "SELECT COUNT(*) AS N FROM (SELECT DISTINCT " + workload_key::column_list_with_storage() + " FROM HIST_DATA)";
inline constexpr const char* kCalibratedModels = "SELECT COUNT(*) AS N FROM DBSCAN_MODEL_PARAMS";
inline constexpr const char* kAnomaliesSince = "SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE DETECTION_TIME >= ?";
inline constexpr const char* kAnomaliesTotal = "SELECT COUNT(*) AS N FROM ANOMALY_DATA";
inline constexpr const char* kNewestDetection = "SELECT COALESCE(MAX(DETECTION_TIME), 0) AS N FROM ANOMALY_DATA";

// Anomalies per local calendar day since ?1 (epoch seconds): DAY as
// YYYY-MM-DD, N the count.
inline constexpr const char* kAnomaliesPerDay =
    "SELECT date(DETECTION_TIME, 'unixepoch', 'localtime') AS DAY, COUNT(*) AS N FROM ANOMALY_DATA "
    "WHERE DETECTION_TIME >= ?1 GROUP BY DAY ORDER BY DAY";

// An anomaly's state, for the row of ANOMALY_DATA aliased t: 3 acknowledged
// (the operator handled it), 2 false positive learned (a pass took the job
// into the history as a confirmed normal job), 1 false positive waiting for
// that pass (a verdict row exists), 0 open.
//
// A job still queued has not been learned: the pass that learns a verdict
// moves the job from the queue into the history, and one interrupted in
// between finds the verdict again and finishes. So the history, millions of
// rows, is searched only for the few anomalies whose job left the queue,
// and the queue's small index answers for the others. "+f.FEEDBACK" keeps
// SQLite from searching the verdicts by their value (every verdict row, for
// every anomaly) rather than by id.
inline std::string state_of(const std::string& t) {
  const std::string verdict = "EXISTS (SELECT 1 FROM ANOMALY_DATA_FEEDBACK f WHERE f.ANOMALY_UNIQUE_ID = " + t +
                              ".ANOMALY_UNIQUE_ID AND +f.FEEDBACK = 1)";
  return "CASE WHEN " + t + ".ANOMALY_STATE = 1 THEN 3 WHEN EXISTS (SELECT 1 FROM DATA_TO_PROCESS q WHERE "
         "q.UNIQUE_KEY = " + t + ".DETECTION_KEY) THEN CASE WHEN " + verdict + " THEN 1 ELSE 0 END WHEN EXISTS "
         "(SELECT 1 FROM HIST_DATA h WHERE h.UNIQUE_KEY = " + t + ".DETECTION_KEY AND h.USER_IDENTIFIED_CLUSTER = 1) "
         "THEN 2 WHEN " + verdict + " THEN 1 ELSE 0 END";
}

// A member of the payload's Attributes for the row aliased t, NULL when the
// payload is not JSON (json_extract would fail the whole query on one
// damaged row).
inline std::string payload_member(const std::string& t, const char* member) {
  return "CASE WHEN json_valid(" + t + ".ANOMALY_PAYLOAD) THEN json_extract(" + t + ".ANOMALY_PAYLOAD, '" +
         payload_members::attribute_path(member) + "') END";
}

// The list's filter over the rows aliased t. ?1 client and ?2 policy
// lower-cased ('' for any), ?3 and ?4 the detection time range [from, to),
// ?5 the state (-1 for any). Each test is skipped when its parameter says
// "any", so an unfiltered list computes neither payload members nor states.
inline std::string list_filter(const std::string& t) {
  return "(?1 = '' OR lower(" + t + ".CLIENT) = ?1) AND (?2 = '' OR lower(" + payload_member(t, payload_members::kPolicyName) +
         ") = ?2) AND " + t + ".DETECTION_TIME >= ?3 AND " + t + ".DETECTION_TIME < ?4 AND (?5 < 0 OR (" +
         state_of(t) + ") = ?5)";
}

// One page of the filtered list, the latest reported first (the detector
// appends each report, so rowid order is report order, and walking the
// table backwards needs no sort): ?6 rows from ?7 on. The page is chosen on
// rowid and the filter alone; payload members and states are then computed
// for its rows only.
inline const std::string kListPage =
    "SELECT a.ANOMALY_UNIQUE_ID AS ID, a.CLIENT AS CLIENT, a.DETECTION_TIME AS DETECTION_TIME, " +
    payload_member("a", payload_members::kPolicyName) + " AS POLICY, " + payload_member("a", payload_members::kSummary) + " AS SUMMARY, " +
    payload_member("a", payload_members::kScore) + " AS SCORE, " + state_of("a") +
    " AS STATE FROM (SELECT p.rowid AS R FROM ANOMALY_DATA p WHERE " + list_filter("p") +
    " ORDER BY R DESC LIMIT ?6 OFFSET ?7) page JOIN ANOMALY_DATA a ON a.rowid = page.R ORDER BY page.R DESC";

// The ids of the filtered list, the latest reported first: at most ?6.
inline const std::string kListIds =
    "SELECT a.ANOMALY_UNIQUE_ID AS ID FROM ANOMALY_DATA a WHERE " + list_filter("a") + " ORDER BY a.rowid DESC LIMIT ?6";

// The figures of the filtered list's tiles: N all, CLIENTS distinct clients,
// DAY and WEEK detected at or after ?6 and ?7.
inline const std::string kListTotals =
    "SELECT COUNT(*) AS N, COUNT(DISTINCT a.CLIENT) AS CLIENTS, COALESCE(SUM(a.DETECTION_TIME >= ?6), 0) AS DAY, "
    "COALESCE(SUM(a.DETECTION_TIME >= ?7), 0) AS WEEK FROM ANOMALY_DATA a WHERE " +
    list_filter("a");

// Every anomaly by state: STATE and N, states without anomalies left out.
inline const std::string kAnomaliesByState =
    "SELECT " + state_of("a") + " AS STATE, COUNT(*) AS N FROM ANOMALY_DATA a GROUP BY STATE";

// One anomaly's state by id (no row for an unknown id).
inline const std::string kStateById =
    "SELECT " + state_of("a") + " AS STATE, a.DETECTION_KEY AS DETECTION_KEY FROM ANOMALY_DATA a "
    "WHERE a.ANOMALY_UNIQUE_ID = ?1";

// The id whose digest handle (operator/AnomalyHandle) is ?1. The function is
// the tools' own, registered on their connection for direct use only: no
// trigger or view can call it.
inline constexpr const char* kDigestFunction = "TSANOMALY_ID_DIGEST";
inline const std::string kIdByDigest = std::string("SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE ") +
                                       kDigestFunction + "(ANOMALY_UNIQUE_ID) = ?1 LIMIT 1";

// Whether the reported job is still queued: the next pass can only learn a
// false positive whose job it finds there.
inline constexpr const char* kJobQueued = "SELECT COUNT(*) AS N FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?1";

// One workload's accepted history from a time on, for charts: ?1..?8 the
// workload's key values in workload_key's order, ?9 the earliest backup
// time. The workload index answers all three without touching the table.
inline const std::string kHistoryWindow =
    " FROM HIST_DATA WHERE CLIENT = ?1 AND POLICY = ?2 AND POLICY_TYPE = ?3 AND APP_TYPE = ?4 AND "
    "SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6 AND DESTINATION_STORAGE_NAME = ?7 AND ASSET_ID = ?8 AND MODE = 1 "
    "AND BACKUP_TIME >= ?9";
// N jobs in the window, FIRST and LAST backup time.
inline const std::string kHistoryExtent =
    "SELECT COUNT(*) AS N, COALESCE(MIN(BACKUP_TIME), 0) AS FIRST, COALESCE(MAX(BACKUP_TIME), 0) AS LAST" +
    kHistoryWindow;
// The newest backup time of the window (?9 the earliest), 0 for none.
inline const std::string kHistoryNewest = "SELECT COALESCE(MAX(BACKUP_TIME), 0) AS N" + kHistoryWindow;
// Every job of the window, oldest first: the backup time, then the five
// features in matrix order.
inline const std::string kHistoryJobs =
    "SELECT BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE" + kHistoryWindow +
    " ORDER BY BACKUP_TIME";
// The window cut into ?11 equal time slices from ?10 (its first backup) to
// ?12 (its last): per slice the mean backup time and mean features, oldest
// first, so a chart of a million jobs gets at most ?11 points.
inline const std::string kHistorySlices =
    "SELECT CAST(AVG(BACKUP_TIME) AS INTEGER), AVG(NUM_FILES), AVG(IMAGE_SIZE), AVG(KB_TRANSFERRED), "
    "AVG(TOTAL_TIME), AVG(DEDUP_RATE)" + kHistoryWindow +
    " GROUP BY CAST((BACKUP_TIME - ?10) * ?11 / (?12 - ?10 + 1) AS INTEGER) ORDER BY 1";

// The workload key of a job by its UNIQUE_KEY, in workload_key's order:
// from the queue while it is there, from the history once a pass took it in.
inline const std::string kWorkloadOfJob =
    "SELECT " + workload_key::column_list_with_storage() + " FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?1 UNION ALL "
    "SELECT " + workload_key::column_list_with_storage() + " FROM HIST_DATA WHERE UNIQUE_KEY = ?1 LIMIT 1";
// The workload's calibrated model: EPS and CAPTURE_DATE (?1..?8 as kHistoryWindow).
inline constexpr const char* kModelOfWorkload =
    "SELECT EPS, CAPTURE_DATE FROM DBSCAN_MODEL_PARAMS WHERE CLIENT = ?1 AND POLICY = ?2 AND POLICY_TYPE = ?3 AND "
    "APP_TYPE = ?4 AND SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6 AND DESTINATION_STORAGE_NAME = ?7 AND ASSET_ID = ?8";
// The workload's history rows on every storage (?1..?6): what a replay of
// one of its jobs copies.
inline constexpr const char* kWorkloadRowsAnyStorage =
    "SELECT COUNT(*) FROM HIST_DATA WHERE CLIENT = ?1 AND POLICY = ?2 AND POLICY_TYPE = ?3 AND APP_TYPE = ?4 AND "
    "SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6";

// The anomalies of one workload whose job is still known (queued, or taken
// into the history), newest first, at most ?10; ?1..?8 the workload's key as
// kHistoryWindow, ?9 the earliest backup time. ID, DETECTION_TIME, the job's
// BACKUP_TIME and five features in matrix order, SUMMARY, SCORE, STATE.
// Each half scans the anomalies of the client and finds the job by its key
// (CROSS JOIN keeps that order: driven from the history's workload index,
// each of its jobs would scan the whole anomaly table).
inline std::string workload_anomalies_from(const char* jobs) {
  return "SELECT a.rowid AS R, a.ANOMALY_UNIQUE_ID AS ID, a.DETECTION_TIME AS DETECTION_TIME, j.BACKUP_TIME AS "
         "BACKUP_TIME, j.NUM_FILES, j.IMAGE_SIZE, j.KB_TRANSFERRED, j.TOTAL_TIME, j.DEDUP_RATE, " +
         payload_member("a", payload_members::kSummary) + " AS SUMMARY, " +
         payload_member("a", payload_members::kScore) + " AS SCORE, " + state_of("a") +
         " AS STATE FROM ANOMALY_DATA a CROSS JOIN " + jobs + " j ON j.UNIQUE_KEY = a.DETECTION_KEY WHERE a.CLIENT = ?1 AND "
         "j.CLIENT = ?1 AND j.POLICY = ?2 AND j.POLICY_TYPE = ?3 AND j.APP_TYPE = ?4 AND j.SCHEDULE_TYPE = ?5 AND "
         "j.SCHEDULE_NAME = ?6 AND j.DESTINATION_STORAGE_NAME = ?7 AND j.ASSET_ID = ?8 AND j.BACKUP_TIME >= ?9";
}
inline const std::string kWorkloadAnomalies =
    "SELECT ID, DETECTION_TIME, BACKUP_TIME, NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE, SUMMARY, "
    "SCORE, STATE FROM (" + workload_anomalies_from("DATA_TO_PROCESS") + " UNION ALL " +
    workload_anomalies_from("HIST_DATA") + ") ORDER BY R DESC LIMIT ?10";
// The workload's pending jobs (?1..?8): N, and the first ?9 keys in the
// order a pass meets them.
inline constexpr const char* kWorkloadPending =
    "SELECT UNIQUE_KEY, COUNT(*) OVER () AS N FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0 AND CLIENT = ?1 AND "
    "POLICY = ?2 AND POLICY_TYPE = ?3 AND APP_TYPE = ?4 AND SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6 AND "
    "DESTINATION_STORAGE_NAME = ?7 AND ASSET_ID = ?8 ORDER BY rowid LIMIT ?9";

// The verdicts. A false positive is the row the detector's next pass folds
// into the history; an acknowledgement marks a real anomaly as handled.
inline constexpr const char* kInsertFalsePositive =
    "INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES (?1, 1)";
inline constexpr const char* kAcknowledge =
    "UPDATE ANOMALY_DATA SET ANOMALY_STATE = 1 WHERE ANOMALY_UNIQUE_ID = ?1 AND ANOMALY_STATE = 0";

// The operators' reasons for their verdicts: a table of the operator's
// tools, not of the detector (which never reads it), made by the first
// verdict given with a reason. VERDICT is "false-positive" or
// "acknowledge", GIVEN_AT epoch seconds.
inline constexpr const char* kCreateVerdictReason =
    "CREATE TABLE IF NOT EXISTS VERDICT_REASON (ANOMALY_UNIQUE_ID TEXT NOT NULL, VERDICT TEXT NOT NULL, "
    "REASON TEXT NOT NULL, GIVEN_AT INTEGER NOT NULL)";
inline constexpr const char* kInsertVerdictReason =
    "INSERT INTO VERDICT_REASON (ANOMALY_UNIQUE_ID, VERDICT, REASON, GIVEN_AT) VALUES (?1, ?2, ?3, ?4)";

}  // namespace console_sql
