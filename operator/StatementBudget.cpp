#include "operator/StatementBudget.h"

#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

// How many virtual machine steps SQLite runs between two looks at the clock:
// a fraction of a millisecond.
constexpr int kStepsBetweenChecks = 1000;

struct Budget {
  std::chrono::milliseconds deadline;
  Clock::time_point started = Clock::now();
};

int past_deadline(void* context) {
  const auto& budget = *static_cast<const Budget*>(context);
  return Clock::now() - budget.started > budget.deadline ? 1 : 0;
}

// A statement starting restarts the clock, unless it is a trigger's (traced
// as "-- TRIGGER name"), which runs within the statement that fired it. The
// connection closing frees the budget after detaching both callbacks, since
// a close SQLite refuses (statements still open) leaves the connection alive.
int on_trace(unsigned event, void* context, void* subject, void* detail) {
  auto* budget = static_cast<Budget*>(context);
  if (event == SQLITE_TRACE_CLOSE) {
    auto* handle = static_cast<sqlite3*>(subject);
    sqlite3_progress_handler(handle, 0, nullptr, nullptr);
    sqlite3_trace_v2(handle, 0, nullptr, nullptr);
    delete budget;
  } else if (event == SQLITE_TRACE_STMT && detail != nullptr &&
             std::strncmp(static_cast<const char*>(detail), "--", 2) != 0) {
    budget->started = Clock::now();
  }
  return 0;
}

}  // namespace

namespace statement_budget {

void apply(sqlite3* handle, std::chrono::milliseconds deadline) {
  sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kMaxLength);
  sqlite3_limit(handle, SQLITE_LIMIT_SQL_LENGTH, kMaxSqlLength);
  sqlite3_limit(handle, SQLITE_LIMIT_TRIGGER_DEPTH, kMaxTriggerDepth);
  sqlite3_limit(handle, SQLITE_LIMIT_ATTACHED, 0);
  auto* budget = new Budget{deadline};
  sqlite3_trace_v2(handle, SQLITE_TRACE_STMT | SQLITE_TRACE_CLOSE, on_trace, budget);
  sqlite3_progress_handler(handle, kStepsBetweenChecks, past_deadline, budget);
}

}  // namespace statement_budget
