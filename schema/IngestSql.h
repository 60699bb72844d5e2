// The SQL texts of `tsanomalyctl ingest`: one finished job written into the
// queue, or straight into the history, unless either table already holds its
// key, so that the same output ingested twice writes each job once. Both bind
// the same 21 cells in the order of kIngestJobColumns (?21 is the key).
#pragma once

#include <string>

namespace ingest_sql {

inline constexpr int kBoundJobCells = 21;
inline constexpr const char* kIngestJobColumns =
    "BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, NUM_FILES, "
    "IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, KB_TRANSFERRED, START_TIME, END_TIME, TOTAL_TIME, DEDUP_RATE, "
    "DESTINATION_STORAGE_NAME, STREAM_NUMBER, ASSET_ID, UNIQUE_KEY";

// The insert into `table`, whose own constant column (the queue's
// PROCESSED_STATUS, the history's MODE) gets `constant`; every job is
// unlabelled (USER_IDENTIFIED_CLUSTER -1), as the product writes it.
inline std::string insert_job(const std::string& table, const std::string& constant_column, int constant) {
  std::string sql = "INSERT INTO " + table + " (" + kIngestJobColumns + ", USER_IDENTIFIED_CLUSTER, " +
                    constant_column + ") SELECT ";
  for (int i = 1; i <= kBoundJobCells; ++i) sql += "?" + std::to_string(i) + ", ";
  return sql + "-1, " + std::to_string(constant) +
         " WHERE NOT EXISTS (SELECT 1 FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?21) "
         "AND NOT EXISTS (SELECT 1 FROM HIST_DATA WHERE UNIQUE_KEY = ?21) ON CONFLICT DO NOTHING";
}

inline std::string queue_job() { return insert_job("DATA_TO_PROCESS", "PROCESSED_STATUS", 0); }
// MODE 1: accepted history, as the detector writes a job it found normal.
inline std::string history_job() { return insert_job("HIST_DATA", "MODE", 1); }

// A detector database for ingest holds both job tables.
inline constexpr const char* kJobTablesPresent =
    "SELECT COUNT(*) AS N FROM sqlite_master WHERE type = 'table' AND name IN ('DATA_TO_PROCESS', 'HIST_DATA')";

}  // namespace ingest_sql
