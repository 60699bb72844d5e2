// The look-ups behind the rules that can still accept a job DBSCAN left as
// noise: the time since the workload's previous backup, and a match with an
// observation a user confirmed. (The third rule, the nearest cluster's range,
// is in AnomalyReport.cpp.)
#include "model/DBScanModelImpl.h"
#include "platform/DebugLog.h"
#include "schema/DetectorSql.h"
#include "service/DetectionService.h"
#include "service/JobKey.h"
#include "service/TrainingRecords.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using job_key::cell;

namespace {

constexpr int kNoUserVerdict = -1;  // USER_IDENTIFIED_CLUSTER of a row no user confirmed

}  // namespace

int DetectionService::get_last_backup_for_anomaly_detected_backup(const Row& record, int full_feature_set) {
  // The fallback set spans storages, and its look-up uses the stand-in name.
  const std::string storage =
      full_feature_set == 1 ? std::string(cell(record, "DESTINATION_STORAGE_NAME")) : job_key::kNoStorage;
  Statement st = statement(detector_sql::kSelectLastBackupTime);
  job_key::bind_texts(st, job_key::plus(job_key::history_key(record), {storage, cell(record, "ASSET_ID")}));
  return read_last_backup_time(st, record);
}

int DetectionService::get_last_backup_on_any_storage(const Row& record) {
  Statement st = statement(detector_sql::kSelectLastBackupTimeAnyStorage);
  job_key::bind_texts(st, job_key::plus(job_key::history_key(record), {cell(record, "ASSET_ID")}));
  return read_last_backup_time(st, record);
}

int DetectionService::read_last_backup_time(Statement& st, const Row& record) {
  Rows rows;
  try {
    db->read_data_prepared(st, rows);
  } catch (...) {
    const job_key::Texts names = job_key::texts_of(record, {"CLIENT", "POLICY"});
    pass_log(kLogError, "Could not get last known backup time for client - %s, policy - %s.",
             names[0].c_str(), names[1].c_str());
    return -1;
  }
  return rows.empty() ? -1 : static_cast<int>(rows[0]["MAX(BACKUP_TIME)"]);
}

int DetectionService::check_anomaly_with_user_identified_cluster(const Row&, const TrainingRecords& training,
                                                                 const Matrix& matrix, double eps_value,
                                                                 DBScan& model) {
  for (std::size_t i = 0; i < training.size(); ++i) {
    if (training.user_verdict(i) == kNoUserVerdict) {
      continue;
    }
    // Matrix row i + 1 is training record i: row 0 is the job itself.
    const double d = model.GetEuclideanDistance(matrix.at(0), matrix.at(i + 1));
    // Inclusive on purpose (unlike the clusterer's strict test); a NaN
    // distance never matches.
    if (d <= eps_value) {
      // At the error level, as this line has always been written.
      pass_log(kLogError, "Found a match for this anomaly with user identified cluster.");
      return 0;
    }
  }
  return 1;
}

// Callers outside the pass hold a training set as Rows; the pass holds it as
// numbers read once. One implementation serves both.
int DetectionService::check_anomaly_with_user_identified_cluster(const Row& record, const Rows& training_rows,
                                                                 const Matrix& matrix, double eps_value,
                                                                 DBScan& model) {
  return check_anomaly_with_user_identified_cluster(record, TrainingRecords::of(training_rows), matrix, eps_value,
                                                    model);
}
