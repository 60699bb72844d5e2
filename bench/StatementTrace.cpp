#include "bench/StatementTrace.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "schema/DetectorSql.h"

namespace pass_bench {

const char* const kDetectorStatements[] = {
    detector_sql::kSelectPendingJobs,      detector_sql::kMarkJobProcessed,
    detector_sql::kDeletePendingJob,       detector_sql::kSelectJobByKey,
    detector_sql::kInsertHistory,          detector_sql::kSelectTrainingSet,
    detector_sql::kSelectFallbackTrainingSet, detector_sql::kSelectLastBackupTime,
    detector_sql::kCountHistoryAnyStorage, detector_sql::kSelectMaxStreamNumber,
    detector_sql::kCountHistoryOfStream,   detector_sql::kSelectModelParams,
    detector_sql::kDeleteModelParams,      detector_sql::kInsertModelParams,
    detector_sql::kInsertAnomaly,          detector_sql::kSelectDetectionKey,
    detector_sql::kSelectFeedback,         detector_sql::kDeleteFeedback,
};
const int kDetectorStatementCount = static_cast<int>(sizeof kDetectorStatements / sizeof kDetectorStatements[0]);

const char* const kDetectorStatementNames[] = {
    "SELECT pending jobs",     "UPDATE processed status", "DELETE pending job",
    "SELECT job by key",       "INSERT HIST_DATA",        "SELECT training set",
    "SELECT fallback set",     "SELECT last backup time", "COUNT history",
    "SELECT max stream",       "COUNT stream history",    "SELECT model params",
    "DELETE model params",     "INSERT model params",     "INSERT anomaly",
    "SELECT detection key",    "SELECT feedback",         "DELETE feedback",
};
static_assert(sizeof kDetectorStatementNames == sizeof kDetectorStatements);

int detector_statement_index(const char* sql) {
  const std::size_t length = std::strlen(sql);
  for (int i = 0; i < kDetectorStatementCount; ++i) {
    const char* text = kDetectorStatements[i];
    // SQLite keeps a statement's text up to the end of the statement, so
    // the blanks after a closing semicolon are not in it.
    if (std::strncmp(sql, text, length) == 0 && std::strspn(text + length, " ") == std::strlen(text + length)) {
      return i;
    }
  }
  return -1;
}

namespace {

// One literal as sqlite3_expanded_sql writes a bound value: NULL, an integer
// (%lld), a real (%!.15g: always with a point or an exponent, or Inf / NaN)
// or a quoted text with quotes doubled. Advances at past it.
bool parse_literal(const std::string& s, std::size_t& at, BoundValue& value) {
  if (s.compare(at, 4, "NULL") == 0) {
    value = BoundValue{};
    at += 4;
    return true;
  }
  if (at < s.size() && s[at] == '\'') {
    value = BoundValue{};
    value.kind = BoundValue::Kind::text;
    for (++at; at < s.size(); ++at) {
      if (s[at] != '\'') {
        value.text += s[at];
      } else if (at + 1 < s.size() && s[at + 1] == '\'') {
        value.text += '\'';
        ++at;
      } else {
        ++at;
        return true;
      }
    }
    return false;  // unterminated
  }
  const std::size_t start = at;
  while (at < s.size() && (std::isalnum(static_cast<unsigned char>(s[at])) || s[at] == '-' || s[at] == '+' ||
                           s[at] == '.')) {
    ++at;
  }
  if (at == start) return false;
  const std::string token = s.substr(start, at - start);
  value = BoundValue{};
  if (token.find_first_of(".eEIN") != std::string::npos) {
    value.kind = BoundValue::Kind::real;
    value.real = std::strtod(token.c_str(), nullptr);
  } else {
    value.kind = BoundValue::Kind::integer;
    value.integer = std::strtoll(token.c_str(), nullptr, 10);
  }
  return true;
}

int trace_statement(unsigned mask, void* context, void* p, void* x) {
  // A text starting with "--" is a trigger program (or a statement run from
  // inside another) that SQLite runs again when the statement runs again.
  const char* traced_text = static_cast<const char*>(x);
  if (mask != SQLITE_TRACE_STMT || (traced_text != nullptr && std::strncmp(traced_text, "--", 2) == 0)) return 0;
  auto& trace = *static_cast<StatementTrace*>(context);
  auto* stmt = static_cast<sqlite3_stmt*>(p);
  const char* sql = sqlite3_sql(stmt);
  const int index = sql != nullptr ? detector_statement_index(sql) : -1;
  if (index < 0) {
    trace.unknown.emplace_back(sql != nullptr ? sql : "(null)");
    return 0;
  }
  TracedStatement traced;
  traced.statement = index;
  char* expanded = sqlite3_expanded_sql(stmt);
  const bool parsed = expanded != nullptr && parse_expanded_sql(sql, expanded, traced.binds);
  if (!parsed) {
    trace.unknown.push_back(std::string("unreadable bindings: ") + (expanded != nullptr ? expanded : sql));
  }
  sqlite3_free(expanded);
  if (parsed) trace.statements.push_back(std::move(traced));
  return 0;
}

std::string hex_real(double d) {
  char text[64];
  std::snprintf(text, sizeof text, "%a", d);
  return text;
}

}  // namespace

bool parse_expanded_sql(const std::string& with_placeholders, const std::string& expanded,
                        std::vector<BoundValue>& binds) {
  binds.clear();
  std::size_t at = 0;
  for (const char c : with_placeholders) {
    if (c == '?') {
      BoundValue value;
      if (!parse_literal(expanded, at, value)) return false;
      binds.push_back(std::move(value));
      continue;
    }
    if (at >= expanded.size() || expanded[at] != c) return false;
    ++at;
  }
  return at == expanded.size();
}

void start_recording(sqlite3* db, StatementTrace& trace) {
  sqlite3_trace_v2(db, SQLITE_TRACE_STMT, trace_statement, &trace);
}

void stop_recording(sqlite3* db) { sqlite3_trace_v2(db, 0, nullptr, nullptr); }

// Record: "<statement> <binds>\n", then one line per bind: "n", "i<int>",
// "r<hex real>" or "t<length>:<bytes>".
void write_trace(const StatementTrace& trace, const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  for (const TracedStatement& s : trace.statements) {
    out << s.statement << ' ' << s.binds.size() << '\n';
    for (const BoundValue& b : s.binds) {
      switch (b.kind) {
        case BoundValue::Kind::null: out << "n\n"; break;
        case BoundValue::Kind::integer: out << 'i' << b.integer << '\n'; break;
        case BoundValue::Kind::real: out << 'r' << hex_real(b.real) << '\n'; break;
        case BoundValue::Kind::text: out << 't' << b.text.size() << ':' << b.text << '\n'; break;
      }
    }
  }
  out.flush();
  if (!out) throw std::runtime_error("cannot write trace " + path);
}

StatementTrace read_trace(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read trace " + path);
  std::stringstream whole;
  whole << in.rdbuf();
  const std::string data = whole.str();
  StatementTrace trace;
  std::size_t at = 0;
  const auto fail = [&path] { return std::runtime_error("malformed trace " + path); };
  const auto line = [&]() {
    const std::size_t end = data.find('\n', at);
    if (end == std::string::npos) throw fail();
    std::string text = data.substr(at, end - at);
    at = end + 1;
    return text;
  };
  while (at < data.size()) {
    TracedStatement s;
    std::size_t count = 0;
    if (std::sscanf(line().c_str(), "%d %zu", &s.statement, &count) != 2 || s.statement < 0 ||
        s.statement >= kDetectorStatementCount) {
      throw fail();
    }
    s.binds.resize(count);
    for (BoundValue& b : s.binds) {
      if (at >= data.size()) throw fail();
      const char kind = data[at];
      if (kind == 't') {
        const std::size_t colon = data.find(':', at);
        if (colon == std::string::npos) throw fail();
        const std::size_t length = std::strtoull(data.c_str() + at + 1, nullptr, 10);
        if (colon + 1 + length >= data.size() || data[colon + 1 + length] != '\n') throw fail();
        b.kind = BoundValue::Kind::text;
        b.text = data.substr(colon + 1, length);
        at = colon + 1 + length + 1;
        continue;
      }
      const std::string text = line();
      if (kind == 'n') {
        b.kind = BoundValue::Kind::null;
      } else if (kind == 'i') {
        b.kind = BoundValue::Kind::integer;
        b.integer = std::strtoll(text.c_str() + 1, nullptr, 10);
      } else if (kind == 'r') {
        b.kind = BoundValue::Kind::real;
        b.real = std::strtod(text.c_str() + 1, nullptr);
      } else {
        throw fail();
      }
    }
    trace.statements.push_back(std::move(s));
  }
  return trace;
}

}  // namespace pass_bench
