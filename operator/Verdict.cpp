#include "operator/Verdict.h"

#include <cstdlib>
#include <optional>
#include <utility>

#include "operator/AnomalyState.h"
#include "operator/DetectorDatabase.h"
#include "schema/ConsoleSql.h"
#include "schema/SchemaAudit.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

// The connection a verdict is written on: it takes the write lock before
// reading the state it decides on, and rolls back unless committed.
class VerdictTransaction {
 public:
  explicit VerdictTransaction(const std::string& path) : db_(detector_database::open_for_verdict(path)) {
    db_->execute_query("BEGIN IMMEDIATE");
  }
  ~VerdictTransaction() {
    if (!committed_) {
      try {
        db_->execute_query("ROLLBACK");
      } catch (...) {
        // The connection closes next, which rolls back as well.
      }
    }
  }
  VerdictTransaction(const VerdictTransaction&) = delete;
  VerdictTransaction& operator=(const VerdictTransaction&) = delete;

  // The anomaly's state and its job's key, or none for an unknown id.
  std::optional<std::pair<AnomalyState, std::string>> state_of(const std::string& id) {
    Statement st(db_->handle, console_sql::kStateById);
    st.bind(1, id);
    std::optional<std::pair<AnomalyState, std::string>> found;
    db_->visit_records_prepared(st, [&](const RecordCursor& cursor) {
      found.emplace(state_from_number(std::strtoll(cursor.text(0), nullptr, 10)), cursor.text(1));
    });
    return found;
  }
  bool foreign_code_present() { return !unknown_code_on_detector_tables(*db_).empty(); }
  bool job_queued(const std::string& key) {
    Statement st(db_->handle, console_sql::kJobQueued);
    st.bind(1, key);
    bool queued = false;
    db_->visit_records_prepared(st, [&](const RecordCursor& cursor) { queued = std::strtoll(cursor.text(0), nullptr, 10) != 0; });
    return queued;
  }
  void record(Verdict verdict, const std::string& id) {
    Statement st(db_->handle,
                 verdict == Verdict::false_positive ? console_sql::kInsertFalsePositive : console_sql::kAcknowledge);
    st.bind(1, id);
    db_->execute_query_prepared(st);
    db_->execute_query("COMMIT");
    committed_ = true;
  }

 private:
  detector_database::Connection db_;
  bool committed_ = false;
};

// The verdict an anomaly in this (not open) state already has.
Verdict verdict_of(AnomalyState state) {
  return state == AnomalyState::acknowledged ? Verdict::acknowledged : Verdict::false_positive;
}

}  // namespace

VerdictOutcome give_verdict(const std::string& database_path, const std::string& anomaly_id, Verdict verdict) {
  VerdictTransaction transaction(database_path);
  // Checked under the write lock, so no trigger can be added before the write.
  if (transaction.foreign_code_present()) return VerdictOutcome::foreign_code;
  const auto found = transaction.state_of(anomaly_id);
  if (!found) return VerdictOutcome::unknown;
  if (found->first != AnomalyState::open) {
    return verdict_of(found->first) == verdict ? VerdictOutcome::already : VerdictOutcome::conflict;
  }
  if (verdict == Verdict::false_positive && !transaction.job_queued(found->second)) return VerdictOutcome::job_gone;
  transaction.record(verdict, anomaly_id);
  return VerdictOutcome::recorded;
}

std::string verdict_refusal(VerdictOutcome outcome) {
  switch (outcome) {
    case VerdictOutcome::conflict:
      return "the anomaly already has the other verdict";
    case VerdictOutcome::job_gone:
      return "the job is no longer in the detection queue, so no pass could learn it";
    case VerdictOutcome::foreign_code:
      return "the database carries a trigger or view on the detector's tables that its schema does not define, "
             "which writing could run; 'tsanomalyctl upgrade DB' lists them, and nothing is written until they "
             "are removed";
    case VerdictOutcome::recorded:
    case VerdictOutcome::already:
    case VerdictOutcome::unknown:
      break;
  }
  return "";
}
