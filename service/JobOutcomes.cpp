// The queue and the history: reading the pending jobs, the two outcomes a
// job can leave the queue with, and users' verdicts that bring a reported job
// into the history after all.
#include "platform/DebugLog.h"
#include "schema/DetectorSql.h"
#include "service/DetectionService.h"
#include "service/JobKey.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using job_key::cell;
using job_key::texts_of;

namespace {

constexpr int kAddedByDetector = 1;    // MODE of every observation the detector adds
constexpr int kUserConfirmed = 1;      // USER_IDENTIFIED_CLUSTER of a verdict's job

void bind_history_row(Statement& st, const DetectionService::Row& record) {
  const auto text = [&](const char* column) { return std::string(cell(record, column)); };
  const auto integer = [&](const char* column) { return static_cast<int>(cell(record, column)); };
  const auto real = [&](const char* column) { return static_cast<double>(cell(record, column)); };
  int i = job_key::bind_texts(st, texts_of(record, {"BACKUP_ID"}));
  st.bind(i++, integer("BACKUP_TIME"));
  i = job_key::bind_texts(
      st, texts_of(record, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE"}), i);
  st.bind(i++, integer("NUM_FILES"));
  st.bind(i++, real("IMAGE_SIZE"));
  st.bind(i++, integer("JOB_ID"));
  st.bind(i++, integer("PARENT_JOB_ID"));
  st.bind(i++, real("KB_TRANSFERRED"));
  st.bind(i++, integer("START_TIME"));
  st.bind(i++, integer("END_TIME"));
  st.bind(i++, integer("TOTAL_TIME"));
  st.bind(i++, real("DEDUP_RATE"));
  st.bind(i++, kAddedByDetector);  // MODE, whichever training set judged the job
  st.bind(i++, integer("USER_IDENTIFIED_CLUSTER"));
  st.bind(i++, text("DESTINATION_STORAGE_NAME"));
  st.bind(i++, integer("STREAM_NUMBER"));
  st.bind(i++, text("ASSET_ID"));
  st.bind(i, text("UNIQUE_KEY"));
}

}  // namespace

void DetectionService::get_data_for_detection(Rows& rows) { db->read_data(detector_sql::kSelectPendingJobs, rows); }

void DetectionService::update_processed_status(const std::string& unique_key) {
  Statement st = statement(detector_sql::kMarkJobProcessed);
  st.bind(1, unique_key);
  db->execute_query_prepared(st);
}

void DetectionService::update_valid_observation(const Row& record) {
  const std::string unique_key = cell(record, "UNIQUE_KEY");
  {
    Statement st = statement(detector_sql::kInsertHistory);
    bind_history_row(st, record);
    db->execute_query_prepared(st);
  }
  // The schema's trigger has already taken the job off the queue with the
  // insert (one statement, so a crash cannot leave it in both tables); this
  // delete then finds nothing. It stays: it is the detector's own statement,
  // and it still does the work on a database made without the trigger.
  Statement st = statement(detector_sql::kDeletePendingJob);
  st.bind(1, unique_key);
  db->execute_query_prepared(st);
}

void DetectionService::accept_as_valid(const Row& row) {
  update_valid_observation(row);
  // A no-op where the history insert already removed the queue row, kept
  // for the same reason as the delete above.
  update_processed_status(cell(row, "UNIQUE_KEY"));
}

void DetectionService::accomodate_user_feedback_received() {
  Rows verdicts;
  db->read_data(detector_sql::kSelectFeedback, verdicts);
  for (const Row& verdict : verdicts) {
    const std::string anomaly_id = cell(verdict, "ANOMALY_UNIQUE_ID");
    Rows anomalies;
    {
      Statement st = statement(detector_sql::kSelectDetectionKey);
      st.bind(1, anomaly_id);
      db->read_data_prepared(st, anomalies);
    }
    if (anomalies.empty()) {
      continue;  // read again, and skipped again, at every later pass
    }
    Rows jobs;
    {
      Statement st = statement(detector_sql::kSelectJobByKey);
      st.bind(1, std::string(anomalies[0]["DETECTION_KEY"]));
      db->read_data_prepared(st, jobs);
    }
    if (jobs.empty()) {
      continue;
    }
    Row record = jobs[0];
    const job_key::Texts names = texts_of(record, {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_NAME", "APP_TYPE"});
    record["USER_IDENTIFIED_CLUSTER"] = Value(kUserConfirmed);
    pass_log(kLogProgress,
             "Updating user feedback for training for client = %s, policy = %s, policy_type = %s, schedule_name = %s "
             "& app_type = %s",
             names[0].c_str(), names[1].c_str(), names[2].c_str(), names[3].c_str(), names[4].c_str());
    update_valid_observation(record);
    Statement st = statement(detector_sql::kDeleteFeedback);
    st.bind(1, anomaly_id);
    db->execute_query_prepared(st);
  }
}
