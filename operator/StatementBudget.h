// StatementBudget: what any one statement on a connection the operator's
// tools open may take. A file anybody could have written may carry a view or
// trigger that spins, or values of any size: each statement is interrupted
// (SQLITE_INTERRUPT, thrown by the statement's caller) once it has run past
// its deadline, and lengths, SQL text, trigger depth and attached databases
// are capped. The budget lives as long as the connection and frees itself
// when the connection closes.
#pragma once

#include <sqlite3.h>

#include <chrono>

namespace statement_budget {

// Long enough for a report over a large history, short enough that no
// foreign code holds the console or the write lock for long.
inline constexpr std::chrono::milliseconds kDeadline{30000};

// The longest text or blob a statement may make or read, and the longest SQL
// text (a schema's too) and trigger nesting a connection accepts.
inline constexpr int kMaxLength = 32 * 1024 * 1024;
inline constexpr int kMaxSqlLength = 1024 * 1024;
inline constexpr int kMaxTriggerDepth = 4;

// Applies the budget to an open connection; the deadline counts from the
// start of each statement (a trigger's statements count as part of the
// statement that fired them). Installs SQLite's progress handler and trace
// callback, so the connection must have no others.
void apply(sqlite3* handle, std::chrono::milliseconds deadline = kDeadline);

}  // namespace statement_budget
