// Every SQL text the detector runs, byte for byte (runs of blanks, trailing
// blanks and the lower-case "where" included). The service binds their
// placeholders 1-based in order of appearance; the schema is built so that
// each of them is an index search.
#pragma once

namespace detector_sql {

inline constexpr const char* kSelectPendingJobs = "SELECT * FROM DATA_TO_PROCESS where PROCESSED_STATUS = 0";
inline constexpr const char* kMarkJobProcessed =
    "UPDATE DATA_TO_PROCESS SET  PROCESSED_STATUS = 1  WHERE UNIQUE_KEY = ? ";
inline constexpr const char* kDeletePendingJob = "DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ? ";
inline constexpr const char* kSelectJobByKey = "SELECT * FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?";
inline constexpr const char* kInsertHistory =
    "INSERT OR REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";
inline constexpr const char* kSelectTrainingSet =
    "SELECT NUM_FILES,  IMAGE_SIZE,  KB_TRANSFERRED,  TOTAL_TIME,  DEDUP_RATE,  USER_IDENTIFIED_CLUSTER  FROM HIST_DATA  "
    "WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  POLICY_TYPE              = ? AND  "
    "APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  SCHEDULE_NAME            = ? AND  "
    "DESTINATION_STORAGE_NAME = ? AND  ASSET_ID                 = ? AND  MODE                     = ?   "
    "ORDER BY BACKUP_TIME DESC LIMIT ? ";
inline constexpr const char* kSelectFallbackTrainingSet =
    "SELECT   NUM_FILES,  IMAGE_SIZE,  KB_TRANSFERRED,  USER_IDENTIFIED_CLUSTER  FROM HIST_DATA  WHERE  "
    "CLIENT        = ? AND  POLICY        = ? AND  POLICY_TYPE   = ? AND  APP_TYPE      = ? AND  "
    "SCHEDULE_TYPE = ? AND  SCHEDULE_NAME = ? AND  ASSET_ID      = ?  ORDER BY BACKUP_TIME DESC LIMIT ? ";
inline constexpr const char* kSelectLastBackupTime =
    "SELECT MAX(BACKUP_TIME) FROM HIST_DATA WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
    "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
    "SCHEDULE_NAME            = ? AND  DESTINATION_STORAGE_NAME = ? AND  ASSET_ID                 = ? ";
// Opt-in (JUDGE_ON_FALLBACK_FEATURES=1) for a job judged on the fallback
// set: its workload's last backup on any storage, as that set spans them.
inline constexpr const char* kSelectLastBackupTimeAnyStorage =
    "SELECT MAX(BACKUP_TIME) FROM HIST_DATA WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ? AND APP_TYPE = ? AND "
    "SCHEDULE_TYPE = ? AND SCHEDULE_NAME = ? AND ASSET_ID = ?";
inline constexpr const char* kCountHistoryAnyStorage =
    "SELECT COUNT(*)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
    "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
    "SCHEDULE_NAME            = ? AND  ASSET_ID                 = ? ";
inline constexpr const char* kSelectMaxStreamNumber =
    "SELECT MAX(STREAM_NUMBER)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? "
    "AND  POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
    "SCHEDULE_NAME            = ? ";
inline constexpr const char* kCountHistoryOfStream =
    "SELECT COUNT(*)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
    "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
    "SCHEDULE_NAME            = ? AND  STREAM_NUMBER            = ? ";
inline constexpr const char* kSelectModelParams =
    "SELECT EPS, CAPTURE_DATE FROM DBSCAN_MODEL_PARAMS  WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ?   AND "
    "SCHEDULE_TYPE = ? AND SCHEDULE_NAME = ? AND APP_TYPE = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ?";
inline constexpr const char* kDeleteModelParams =
    "DELETE FROM DBSCAN_MODEL_PARAMS  WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ?   AND SCHEDULE_TYPE = ? "
    "AND SCHEDULE_NAME = ? AND APP_TYPE = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ?";
inline constexpr const char* kInsertModelParams =
    "INSERT OR REPLACE INTO DBSCAN_MODEL_PARAMS  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";
inline constexpr const char* kInsertAnomaly = "INSERT OR IGNORE INTO ANOMALY_DATA VALUES (?, ?, ?, ?, ?, ?)";
inline constexpr const char* kSelectDetectionKey = "SELECT DETECTION_KEY FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID = ?";
inline constexpr const char* kSelectFeedback = "SELECT * FROM ANOMALY_DATA_FEEDBACK WHERE FEEDBACK = 1";
inline constexpr const char* kDeleteFeedback = "DELETE FROM ANOMALY_DATA_FEEDBACK WHERE ANOMALY_UNIQUE_ID = ?";

}  // namespace detector_sql
