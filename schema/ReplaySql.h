// The SQL texts with which a judgement is replayed on a copy of one job's
// workload: the detector's real database is attached read-only as "source"
// and only read; everything is written to the in-memory copy ("main").
// WORKLOAD stands for the six workload columns, bound as ?1 .. ?6 in the
// order of workload_key::kColumns.
#pragma once

namespace replay_sql {

inline constexpr const char* kAttachSource = "ATTACH DATABASE ? AS source";
inline constexpr const char* kSourceTables =
    "SELECT name FROM source.sqlite_master WHERE type = 'table' AND name IN ('DATA_TO_PROCESS', 'HIST_DATA', "
    "'DBSCAN_MODEL_PARAMS', 'ANOMALY_DATA', 'ANOMALY_DATA_FEEDBACK')";
inline constexpr int kDetectorTableCount = 5;
inline constexpr const char* kSourceJob = "SELECT rowid AS QUEUE_ROW, * FROM source.DATA_TO_PROCESS WHERE UNIQUE_KEY = ?";

// ?1 to ?6: the workload's columns, in the order of workload_key::kColumns.
inline constexpr const char* kWorkload =
    "CLIENT = ?1 AND POLICY = ?2 AND POLICY_TYPE = ?3 AND APP_TYPE = ?4 AND SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6";
// Users' verdicts on jobs of the workload, which the next pass folds in first.
inline constexpr const char* kVerdictsOfWorkload =
    "ANOMALY_UNIQUE_ID IN (SELECT f.ANOMALY_UNIQUE_ID FROM source.ANOMALY_DATA_FEEDBACK f JOIN source.ANOMALY_DATA a "
    "ON a.ANOMALY_UNIQUE_ID = f.ANOMALY_UNIQUE_ID JOIN source.DATA_TO_PROCESS d ON d.UNIQUE_KEY = a.DETECTION_KEY "
    "WHERE f.FEEDBACK = 1 AND d.CLIENT = ?1 AND d.POLICY = ?2 AND d.POLICY_TYPE = ?3 AND d.APP_TYPE = ?4 AND "
    "d.SCHEDULE_TYPE = ?5 AND d.SCHEDULE_NAME = ?6)";
inline constexpr const char* kJobAndJobsOfVerdicts =
    "UNIQUE_KEY = ? OR UNIQUE_KEY IN (SELECT DETECTION_KEY FROM main.ANOMALY_DATA)";
inline constexpr const char* kMakeJobPending = "UPDATE main.DATA_TO_PROCESS SET PROCESSED_STATUS = 0 WHERE UNIQUE_KEY = ?";
inline constexpr const char* kEarlierPendingJobs =
    "SELECT COUNT(*) AS N FROM source.DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0 AND rowid < ?7 AND CLIENT = ?1 AND "
    "POLICY = ?2 AND POLICY_TYPE = ?3 AND APP_TYPE = ?4 AND SCHEDULE_TYPE = ?5 AND SCHEDULE_NAME = ?6";
inline constexpr const char* kCopiedVerdicts = "SELECT COUNT(*) AS N FROM main.ANOMALY_DATA_FEEDBACK";
// Each pending job with the number of its storage's history rows and its
// workload's highest stream number: a job can be left without judgement
// only when its storage has fewer rows than the minimum (the fallback set)
// or when features are disabled for its policy type.
inline constexpr const char* kPendingJobsWithOwnHistory =
    "SELECT d.UNIQUE_KEY, d.POLICY_TYPE, (SELECT COUNT(*) FROM HIST_DATA h WHERE h.CLIENT = d.CLIENT AND "
    "h.POLICY = d.POLICY AND h.POLICY_TYPE = d.POLICY_TYPE AND h.APP_TYPE = d.APP_TYPE AND h.SCHEDULE_TYPE = "
    "d.SCHEDULE_TYPE AND h.SCHEDULE_NAME = d.SCHEDULE_NAME AND h.DESTINATION_STORAGE_NAME = "
    "d.DESTINATION_STORAGE_NAME AND h.ASSET_ID = d.ASSET_ID AND h.MODE = 1) AS OWN_HISTORY, (SELECT "
    "MAX(STREAM_NUMBER) FROM HIST_DATA h WHERE h.CLIENT = d.CLIENT AND h.POLICY = d.POLICY AND h.POLICY_TYPE = "
    "d.POLICY_TYPE AND h.APP_TYPE = d.APP_TYPE AND h.SCHEDULE_TYPE = d.SCHEDULE_TYPE AND h.SCHEDULE_NAME = "
    "d.SCHEDULE_NAME) AS STREAMS FROM DATA_TO_PROCESS d WHERE d.PROCESSED_STATUS = 0 ORDER BY d.rowid";
inline constexpr const char* kPendingKeys =
    "SELECT UNIQUE_KEY FROM source.DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0 ORDER BY rowid LIMIT ?";

// The job's place after the replayed pass.
inline constexpr const char* kInHistory = "SELECT COUNT(*) AS N FROM main.HIST_DATA WHERE UNIQUE_KEY = ?";
inline constexpr const char* kReport = "SELECT ANOMALY_PAYLOAD FROM main.ANOMALY_DATA WHERE DETECTION_KEY = ?";
inline constexpr const char* kQueueState = "SELECT PROCESSED_STATUS FROM main.DATA_TO_PROCESS WHERE UNIQUE_KEY = ?";

}  // namespace replay_sql
