// QueueAudit: reads a detector database through its own SQLite connection
// and checks that the user's data is whole: the file passes SQLite's
// integrity check, no job of a known set is lost (each is in the history or
// still in the queue), none is reported twice, every report still leads to
// its job, and the history the detector started from is untouched. Used by
// the crash, concurrent-writer and soak tests; it never writes.
#pragma once

#include <sqlite3.h>

#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace reliability {

using TextRows = std::vector<std::vector<std::string>>;

// One raw SQLite connection, independent of the project's storage layer, so
// that a fault there cannot hide itself from the checks.
class SqliteFile {
 public:
  explicit SqliteFile(const std::string& path, int busy_timeout_ms = 10000) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close(db_);
      throw std::runtime_error("cannot open " + path + ": " + message);
    }
    sqlite3_busy_timeout(db_, busy_timeout_ms);
    // Leave the write-ahead log as the detector left it: closing the last
    // connection must not fold it into the database behind the test's back.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
  ~SqliteFile() { sqlite3_close(db_); }
  SqliteFile(const SqliteFile&) = delete;
  SqliteFile& operator=(const SqliteFile&) = delete;

  sqlite3* handle() const { return db_; }

  // Every record of sql, every cell as text (SQL NULL as "<NULL>").
  TextRows rows(const std::string& sql) const {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      throw std::runtime_error("cannot prepare [" + sql + "]: " + sqlite3_errmsg(db_));
    }
    TextRows out;
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(st); ++i) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
        row.emplace_back(text != nullptr ? text : "<NULL>");
      }
      out.push_back(std::move(row));
    }
    const std::string error = rc == SQLITE_DONE ? "" : sqlite3_errmsg(db_);
    sqlite3_finalize(st);
    if (rc != SQLITE_DONE) {
      throw std::runtime_error("cannot run [" + sql + "]: " + error);
    }
    return out;
  }

  std::string text(const std::string& sql) const {
    const TextRows r = rows(sql);
    if (r.empty() || r[0].empty()) throw std::runtime_error("no value from [" + sql + "]");
    return r[0][0];
  }

  long long number(const std::string& sql) const { return std::stoll(text(sql)); }

  void exec(const std::string& sql) const {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
      const std::string error = message != nullptr ? message : "";
      sqlite3_free(message);
      throw std::runtime_error("cannot run [" + sql + "]: " + error);
    }
  }

 private:
  sqlite3* db_ = nullptr;
};

// What the test knows besides the database: the jobs that were queued, how
// much history there was before, and the verdicts it sent.
struct Expectations {
  std::set<std::string> jobs;                     // UNIQUE_KEYs queued by the test
  long long base_history_rows = 0;                // HIST_DATA rows that are not jobs of the test
  std::set<std::string> false_positive_verdicts;  // anomaly ids sent with FEEDBACK = 1
  // Feedback rows the detector must leave alone: FEEDBACK other than 1, or
  // an id that names no anomaly.
  std::set<std::string> other_verdict_rows;
};

struct AuditResult {
  std::vector<std::string> violations;
  long long rows_checked = 0;
  // State of the jobs of the test.
  long long in_history = 0;         // in HIST_DATA and no longer queued
  long long reported = 0;           // queued, processed, and named by one anomaly
  long long moved_by_feedback = 0;  // in the history as user-confirmed after a report
  long long pending = 0;            // queued, PROCESSED_STATUS 0
  long long half_moved = 0;         // in HIST_DATA and still queued (between two statements)
  long long half_reported = 0;      // reported but not yet marked processed
  long long verdicts_left = 0;      // false-positive verdicts of the test still in the table

  bool ok() const { return violations.empty(); }
  std::string describe(std::size_t at_most = 25) const {
    std::string text;
    for (std::size_t i = 0; i < violations.size() && i < at_most; ++i) text += "  " + violations[i] + "\n";
    if (violations.size() > at_most) text += "  ... and " + std::to_string(violations.size() - at_most) + " more\n";
    return text;
  }
};

// The invariants. "Settled" adds what must hold once the queue is drained
// and every verdict has been folded in: each job has exactly one outcome.
inline AuditResult audit(const SqliteFile& db, const Expectations& expected, bool settled) {
  AuditResult r;
  auto fail = [&r](const std::string& what) { r.violations.push_back(what); };

  const TextRows integrity = db.rows("PRAGMA integrity_check");
  r.rows_checked += static_cast<long long>(integrity.size());
  if (integrity.size() != 1 || integrity[0][0] != "ok") {
    fail("integrity_check: " + (integrity.empty() ? std::string("no answer") : integrity[0][0]));
  }

  struct HistoryCell {
    std::string mode;
    std::string user_cluster;
  };
  std::map<std::string, HistoryCell> history;  // jobs of the test only
  long long other_history = 0;
  for (auto& row : db.rows("SELECT UNIQUE_KEY, MODE, USER_IDENTIFIED_CLUSTER FROM HIST_DATA")) {
    ++r.rows_checked;
    if (expected.jobs.count(row[0]) != 0) {
      history[row[0]] = {row[1], row[2]};
    } else {
      ++other_history;
    }
  }
  if (other_history != expected.base_history_rows) {
    fail("HIST_DATA holds " + std::to_string(other_history) + " rows besides the test's jobs, expected " +
         std::to_string(expected.base_history_rows));
  }

  std::map<std::string, std::string> queue;  // UNIQUE_KEY -> PROCESSED_STATUS
  for (auto& row : db.rows("SELECT UNIQUE_KEY, PROCESSED_STATUS FROM DATA_TO_PROCESS")) {
    ++r.rows_checked;
    if (!queue.emplace(row[0], row[1]).second) fail("job " + row[0] + " is queued twice");
    if (expected.jobs.count(row[0]) == 0) fail("DATA_TO_PROCESS holds " + row[0] + ", which nobody queued");
  }

  std::map<std::string, std::string> key_of_anomaly;  // ANOMALY_UNIQUE_ID -> DETECTION_KEY
  std::map<std::string, std::string> anomaly_of_key;  // DETECTION_KEY -> ANOMALY_UNIQUE_ID
  for (auto& row : db.rows("SELECT ANOMALY_UNIQUE_ID, DETECTION_KEY FROM ANOMALY_DATA")) {
    ++r.rows_checked;
    if (!key_of_anomaly.emplace(row[0], row[1]).second) fail("anomaly " + row[0] + " is reported twice");
    if (!anomaly_of_key.emplace(row[1], row[0]).second) fail("job " + row[1] + " is reported by two anomalies");
    if (expected.jobs.count(row[1]) == 0) fail("anomaly " + row[0] + " names " + row[1] + ", which nobody queued");
  }

  std::multiset<std::string> verdicts_left;  // false-positive verdicts of the test still present
  std::multiset<std::string> other_rows_left;
  for (auto& row : db.rows("SELECT ANOMALY_UNIQUE_ID, FEEDBACK FROM ANOMALY_DATA_FEEDBACK")) {
    ++r.rows_checked;
    if (expected.false_positive_verdicts.count(row[0]) != 0 && row[1] == "1") {
      verdicts_left.insert(row[0]);
    } else if (expected.other_verdict_rows.count(row[0]) != 0) {
      other_rows_left.insert(row[0]);
    } else {
      fail("ANOMALY_DATA_FEEDBACK holds " + row[0] + " (FEEDBACK " + row[1] + "), which nobody wrote");
    }
  }
  r.verdicts_left = static_cast<long long>(verdicts_left.size());
  for (const std::string& id : expected.other_verdict_rows) {
    if (other_rows_left.count(id) != 1) fail("feedback row " + id + " was consumed or duplicated; it must stay");
  }

  // Every report still leads to its job: through its queue row, or, once a
  // false-positive verdict moved the job, to a user-confirmed history row.
  for (const auto& [id, key] : key_of_anomaly) {
    const bool queued = queue.count(key) != 0;
    const auto hist = history.find(key);
    if (queued) continue;
    if (expected.false_positive_verdicts.count(id) != 0 && hist != history.end() && hist->second.user_cluster == "1") {
      continue;
    }
    fail("anomaly " + id + " names " + key + ", which is neither queued nor moved by a verdict");
  }

  // A verdict is consumed only after its job has moved completely: once it
  // is gone, nothing would finish the move.
  for (const std::string& id : expected.false_positive_verdicts) {
    const auto anomaly = key_of_anomaly.find(id);
    if (verdicts_left.count(id) != 0 || anomaly == key_of_anomaly.end()) continue;
    const auto hist = history.find(anomaly->second);
    if (hist == history.end() || hist->second.user_cluster != "1" || queue.count(anomaly->second) != 0) {
      fail("the verdict on " + id + " was consumed but its job " + anomaly->second + " was not moved completely");
    }
  }

  for (const std::string& key : expected.jobs) {
    ++r.rows_checked;
    const auto q = queue.find(key);
    const auto h = history.find(key);
    const auto a = anomaly_of_key.find(key);
    const bool queued = q != queue.end();
    const bool historic = h != history.end();
    const bool has_report = a != anomaly_of_key.end();
    const bool verdict = has_report && expected.false_positive_verdicts.count(a->second) != 0;
    if (!queued && !historic) {
      fail("job " + key + " is lost: neither in HIST_DATA nor in DATA_TO_PROCESS");
      continue;
    }
    if (historic) {
      if (h->second.mode != "1") fail("job " + key + " entered the history with MODE " + h->second.mode);
      const std::string want = verdict ? "1" : "-1";
      if (h->second.user_cluster != want) {
        fail("job " + key + " is in the history with USER_IDENTIFIED_CLUSTER " + h->second.user_cluster +
             ", expected " + want);
      }
      if (has_report && !verdict) {
        fail("job " + key + " is both in the history and reported as anomaly " + a->second);
      }
    }
    if (queued) {
      const std::string& status = q->second;
      if (status != "0" && status != "1") fail("job " + key + " has PROCESSED_STATUS " + status);
      if (status == "1" && !has_report) {
        fail("job " + key +
             " is marked processed but neither reported nor in the history: it would never "
             "be judged again");
      }
      if (status == "0") ++r.pending;
      if (status == "0" && has_report) ++r.half_reported;
      if (historic) ++r.half_moved;
    }
    if (historic && !queued) {
      if (verdict) {
        ++r.moved_by_feedback;
      } else {
        ++r.in_history;
      }
    }
    if (!historic && queued && q->second == "1" && has_report) ++r.reported;

    if (settled) {
      if (queued && q->second == "0") fail("job " + key + " is still pending");
      if (historic && queued) fail("job " + key + " is both in the history and still queued");
      if (verdict && (queued || !historic)) fail("job " + key + " got a false-positive verdict but was not moved");
    }
  }
  return r;
}

// Whether a line of a debug log (or of a pass's standard output) shows a
// failure of a pass: level 16, the queue not read, a pass or a job or the
// verdicts abandoned. The level-16 line that validation writes when a user
// verdict explains an outlier is an ordinary outcome and does not count.
inline bool is_failure_line(const std::string& line) {
  if (line.find("Found a match for this anomaly with user identified cluster.") != std::string::npos) return false;
  for (const char* mark : {"<16>", "Could not get data", "Error while doing detection", "Unexpected error",
                           "Error occurred during incorporating user feedback"}) {
    if (line.find(mark) != std::string::npos) return true;
  }
  return false;
}

inline std::vector<std::string> failure_lines(const std::string& text) {
  std::vector<std::string> found;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (is_failure_line(line)) found.push_back(line);
  }
  return found;
}

}  // namespace reliability
