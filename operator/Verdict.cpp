#include "operator/Verdict.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <utility>

#include "operator/AnomalyState.h"
#include "operator/DetectorDatabase.h"
#include "schema/ConsoleSql.h"
#include "schema/SchemaAudit.h"
#include "storage/Statement.h"
#include "util/Text.h"

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
  }
  void keep_reason(Verdict verdict, const std::string& id, const std::string& reason) {
    if (!reason_table_) db_->execute_query(console_sql::kCreateVerdictReason);
    reason_table_ = true;
    Statement st(db_->handle, console_sql::kInsertVerdictReason);
    st.bind(1, id);
    st.bind(2, std::string(verdict_slug(verdict)));
    st.bind(3, reason);
    st.bind(4, static_cast<double>(std::time(nullptr)));
    db_->execute_query_prepared(st);
  }
  void commit() {
    db_->execute_query("COMMIT");
    committed_ = true;
  }

 private:
  detector_database::Connection db_;
  bool committed_ = false;
  bool reason_table_ = false;
};

// The verdict an anomaly in this (not open) state already has.
Verdict verdict_of(AnomalyState state) {
  return state == AnomalyState::acknowledged ? Verdict::acknowledged : Verdict::false_positive;
}

// The one rule of a verdict, decided on the state read under the lock.
VerdictOutcome decide(VerdictTransaction& transaction, const std::string& anomaly_id, Verdict verdict) {
  const auto found = transaction.state_of(anomaly_id);
  if (!found) return VerdictOutcome::unknown;
  if (found->first != AnomalyState::open) {
    return verdict_of(found->first) == verdict ? VerdictOutcome::already : VerdictOutcome::conflict;
  }
  if (verdict == Verdict::false_positive && !transaction.job_queued(found->second)) return VerdictOutcome::job_gone;
  transaction.record(verdict, anomaly_id);
  return VerdictOutcome::recorded;
}

}  // namespace

VerdictOutcome give_verdict(const std::string& database_path, const std::string& anomaly_id, Verdict verdict) {
  return give_verdicts(database_path, {anomaly_id}, verdict, "").front();
}

std::vector<VerdictOutcome> give_verdicts(const std::string& database_path, const std::vector<std::string>& ids,
                                          Verdict verdict, const std::string& reason) {
  const std::string kept = text::capped(reason, kMaxReasonBytes);
  std::vector<VerdictOutcome> outcomes;
  outcomes.reserve(ids.size());
  for (std::size_t start = 0; start < ids.size(); start += kVerdictsPerTransaction) {
    VerdictTransaction transaction(database_path);
    // Checked under the write lock, so no trigger can be added before the write.
    const bool foreign_code = transaction.foreign_code_present();
    const std::size_t end = std::min(ids.size(), start + kVerdictsPerTransaction);
    for (std::size_t i = start; i < end; ++i) {
      outcomes.push_back(foreign_code ? VerdictOutcome::foreign_code : decide(transaction, ids[i], verdict));
      if (outcomes.back() == VerdictOutcome::recorded && !kept.empty()) transaction.keep_reason(verdict, ids[i], kept);
    }
    transaction.commit();
  }
  return outcomes;
}

const char* verdict_slug(Verdict verdict) {
  return verdict == Verdict::false_positive ? "false-positive" : "acknowledge";
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
