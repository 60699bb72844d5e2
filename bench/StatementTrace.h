// StatementTrace: the statements one detection pass ran, in order, each as the
// detector's SQL text (an index into kDetectorStatements) and the values
// bound to its placeholders. pass_bench records it from a pass with SQLite's
// statement trace; sql_floor replays it. Only the detector's own texts are
// accepted: anything else in a trace is an error, never silently dropped.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

namespace pass_bench {

// Every SQL text the detector runs (schema/DetectorSql.h), in a fixed order;
// a trace names a text by its position here.
extern const char* const kDetectorStatements[];
extern const int kDetectorStatementCount;
// A short name per text for per-statement figures ("INSERT HIST_DATA").
extern const char* const kDetectorStatementNames[];

// Position in kDetectorStatements of the text SQLite reports for a statement
// (sqlite3_sql: the text without blanks after its semicolon), or -1.
int detector_statement_index(const char* sql);

struct BoundValue {
  enum class Kind { null, integer, real, text };
  Kind kind = Kind::null;
  std::int64_t integer = 0;
  double real = 0.0;
  std::string text;
};

struct TracedStatement {
  int statement = 0;  // index into kDetectorStatements
  std::vector<BoundValue> binds;
};

struct StatementTrace {
  std::vector<TracedStatement> statements;
  // Statements whose text is not one of the detector's (kept for the error
  // message; a sound trace has none).
  std::vector<std::string> unknown;
};

// Recovers the bound values of one run of a statement from its SQL text with
// placeholders and SQLite's expanded text of the same run (sqlite3_sql and
// sqlite3_expanded_sql). False when the two do not line up.
bool parse_expanded_sql(const std::string& with_placeholders, const std::string& expanded,
                        std::vector<BoundValue>& binds);

// Appends every statement that starts running on db to trace until
// stop_recording (the programs of triggers a statement fires are part of the
// statement, not statements of their own); the trace must outlive the
// recording.
void start_recording(sqlite3* db, StatementTrace& trace);
void stop_recording(sqlite3* db);

// One statement per record, reals written in hexadecimal so they read back
// bit for bit. Both throw std::runtime_error on failure.
void write_trace(const StatementTrace& trace, const std::string& path);
StatementTrace read_trace(const std::string& path);

}  // namespace pass_bench
