// The reads around a pass that tell the service manager what the pass did
// (PassStatus). They run on the service's connection between passes, never
// inside one. Rowids mark where the queue and the anomaly table stood before
// the pass, so rows a concurrent writer adds meanwhile are not counted.
#pragma once

namespace pass_status_sql {

inline constexpr const char* kQueueMark = "SELECT COALESCE(MAX(rowid), 0) AS N FROM DATA_TO_PROCESS";
inline constexpr const char* kPendingUpToMark =
    "SELECT COUNT(*) AS N FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0 AND rowid <= ?";
inline constexpr const char* kAnomalyMark = "SELECT COALESCE(MAX(rowid), 0) AS N FROM ANOMALY_DATA";
inline constexpr const char* kAnomaliesAfterMark = "SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE rowid > ?";

}  // namespace pass_status_sql
