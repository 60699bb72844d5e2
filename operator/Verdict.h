// Verdict: an operator's judgement of a reported anomaly, and the one path
// by which every tool (the command line, the console) records it. Both
// verdicts take an open anomaly only: the same verdict again changes
// nothing, the other one is refused; a false positive also needs its job
// still queued, where the next pass looks for it. The state is read and the
// verdict written in one BEGIN IMMEDIATE transaction, so no pass changes the
// state in between. Nothing is written while a trigger or view the
// detector's schema does not define sits on its tables (SchemaAudit): the
// write could run it. Storage failures are thrown (std::runtime_error for a
// file that is not a detector database, sqlite_exception otherwise).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

enum class Verdict {
  false_positive,  // not an anomaly: the next pass learns the job as normal history
  acknowledged,    // a real anomaly, handled
};

enum class VerdictOutcome {
  recorded,  // written now
  already,   // the anomaly already had this verdict: nothing written
  unknown,   // no such anomaly
  conflict,  // the anomaly has the other verdict
  job_gone,  // false positive refused: the job left the queue, no pass could learn it
  foreign_code,  // refused: a trigger or view the detector did not ship sits on its tables
};

VerdictOutcome give_verdict(const std::string& database_path, const std::string& anomaly_id, Verdict verdict);

// The same verdict for many anomalies, each by the rules above, in
// transactions of at most kVerdictsPerTransaction so the detector never
// waits long for the lock. A non-empty reason (at most kMaxReasonBytes;
// longer is cut) is kept in VERDICT_REASON beside each verdict recorded.
// The outcomes are in the order of the ids.
inline constexpr std::size_t kVerdictsPerTransaction = 500;
inline constexpr std::size_t kMaxReasonBytes = 1000;
std::vector<VerdictOutcome> give_verdicts(const std::string& database_path, const std::vector<std::string>& ids,
                                          Verdict verdict, const std::string& reason);

// "false-positive" or "acknowledge": the verdict as URLs, JSON and
// VERDICT_REASON name it.
const char* verdict_slug(Verdict verdict);

// Why a verdict was refused (conflict, job_gone, foreign_code), in the words every tool
// gives the operator; "" for the other outcomes.
std::string verdict_refusal(VerdictOutcome outcome);
