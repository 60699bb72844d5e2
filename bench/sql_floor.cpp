// sql_floor: the SQL a detection pass costs, with nothing else. Replays a
// statement trace recorded from a real pass (pass_bench records it) on a copy
// of the database the pass started from: the same detector texts in the same
// order, the same bound values, every cell of every result row read as text,
// on a connection opened the way the service opens its own, each statement
// in its own transaction as the service runs it. No clustering, statistics,
// logging or row building; each distinct text is compiled once and then
// reset and re-bound, so even compilation is paid only once per text.
//
//   sql_floor DB TRACE [--by-statement]
//
// Prints one line of figures; "load_seconds" is the time spent reading the
// trace before the database is opened, which pass_bench takes off the
// process's wall time. --by-statement adds the time spent per detector text.
// Exit status 0 when every statement ran to completion, 1 otherwise.
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "bench/StatementTrace.h"

namespace {

using pass_bench::BoundValue;
using Clock = std::chrono::steady_clock;

constexpr int kServiceOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
constexpr int kServiceBusyTimeoutMs = 10000;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct PerStatement {
  long long runs = 0;
  double seconds = 0.0;
};

class Replay {
 public:
  explicit Replay(sqlite3* db) : db_(db), compiled_(pass_bench::kDetectorStatementCount, nullptr) {}
  ~Replay() {
    for (sqlite3_stmt* s : compiled_) sqlite3_finalize(s);
  }
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  // Runs one traced statement to completion; false (with a message on
  // standard error) when it fails.
  bool run(const pass_bench::TracedStatement& traced) {
    sqlite3_stmt* s = compiled(traced.statement);
    if (s == nullptr) return false;
    int index = 1;
    for (const BoundValue& b : traced.binds) {
      int rc = SQLITE_OK;
      switch (b.kind) {
        case BoundValue::Kind::null: rc = sqlite3_bind_null(s, index); break;
        case BoundValue::Kind::integer: rc = sqlite3_bind_int64(s, index, b.integer); break;
        case BoundValue::Kind::real: rc = sqlite3_bind_double(s, index, b.real); break;
        case BoundValue::Kind::text:
          rc = sqlite3_bind_text(s, index, b.text.c_str(), static_cast<int>(b.text.size()), SQLITE_STATIC);
          break;
      }
      if (rc != SQLITE_OK) return failed("bind", traced.statement);
      ++index;
    }
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
      ++rows;
      const int columns = sqlite3_data_count(s);
      for (int c = 0; c < columns; ++c) {
        const unsigned char* text = sqlite3_column_text(s, c);
        const int bytes = sqlite3_column_bytes(s, c);
        checksum += static_cast<unsigned long long>(bytes) + (text != nullptr && bytes > 0 ? text[0] : 0u);
        ++cells;
      }
    }
    sqlite3_reset(s);
    if (rc != SQLITE_DONE) return failed("step", traced.statement);
    return true;
  }

  long long rows = 0;
  long long cells = 0;
  unsigned long long checksum = 0;

 private:
  sqlite3_stmt* compiled(int statement) {
    sqlite3_stmt*& s = compiled_[static_cast<std::size_t>(statement)];
    if (s == nullptr &&
        sqlite3_prepare_v2(db_, pass_bench::kDetectorStatements[statement], -1, &s, nullptr) != SQLITE_OK) {
      failed("prepare", statement);
      return nullptr;
    }
    return s;
  }

  bool failed(const char* what, int statement) {
    std::fprintf(stderr, "sql_floor: %s failed for \"%s\": %s\n", what, pass_bench::kDetectorStatements[statement],
                 sqlite3_errmsg(db_));
    return false;
  }

  sqlite3* db_;
  std::vector<sqlite3_stmt*> compiled_;
};

}  // namespace

int main(int argc, char** argv) {
  const auto started = Clock::now();
  if (argc < 3 || argc > 4 || (argc == 4 && std::strcmp(argv[3], "--by-statement") != 0)) {
    std::fprintf(stderr, "usage: sql_floor DB TRACE [--by-statement]\n");
    return 2;
  }
  const bool by_statement = argc == 4;
  pass_bench::StatementTrace trace;
  try {
    trace = pass_bench::read_trace(argv[2]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sql_floor: %s\n", e.what());
    return 1;
  }
  const double load_seconds = seconds_since(started);

  const auto replay_started = Clock::now();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(argv[1], &db, kServiceOpenFlags, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "sql_floor: cannot open %s\n", argv[1]);
    sqlite3_close(db);
    return 1;
  }
  sqlite3_busy_timeout(db, kServiceBusyTimeoutMs);
  std::vector<PerStatement> per_statement(static_cast<std::size_t>(pass_bench::kDetectorStatementCount));
  bool ok = true;
  long long rows = 0;
  long long cells = 0;
  unsigned long long checksum = 0;
  {
    Replay replay(db);
    for (const pass_bench::TracedStatement& s : trace.statements) {
      const auto t0 = by_statement ? Clock::now() : Clock::time_point{};
      if (!replay.run(s)) {
        ok = false;
        break;
      }
      if (by_statement) {
        PerStatement& p = per_statement[static_cast<std::size_t>(s.statement)];
        ++p.runs;
        p.seconds += seconds_since(t0);
      }
    }
    rows = replay.rows;
    cells = replay.cells;
    checksum = replay.checksum;
  }
  sqlite3_close(db);
  const double replay_seconds = seconds_since(replay_started);

  std::printf("statements %zu rows %lld cells %lld load_seconds %.6f replay_seconds %.6f checksum %llu\n",
              trace.statements.size(), rows, cells, load_seconds, replay_seconds, checksum);
  if (by_statement) {
    for (int i = 0; i < pass_bench::kDetectorStatementCount; ++i) {
      const PerStatement& p = per_statement[static_cast<std::size_t>(i)];
      if (p.runs == 0) continue;
      std::printf("  %-26s %8lld runs %10.3f ms %9.1f us/run\n", pass_bench::kDetectorStatementNames[i], p.runs,
                  p.seconds * 1e3, p.seconds * 1e6 / static_cast<double>(p.runs));
    }
  }
  return ok ? 0 : 1;
}
