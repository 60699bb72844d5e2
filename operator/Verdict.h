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

#include <string>

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

// Why a verdict was refused (conflict, job_gone, foreign_code), in the words every tool
// gives the operator; "" for the other outcomes.
std::string verdict_refusal(VerdictOutcome outcome);
