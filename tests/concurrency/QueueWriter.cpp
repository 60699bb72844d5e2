// concurrent_queue_writer: plays the backup product while the detector runs.
// For SECONDS it queues RATE jobs a second into DATA_TO_PROCESS, BATCH jobs
// per short write transaction (BEGIN IMMEDIATE ... COMMIT), and every half
// second reads the anomalies reported so far and writes the operators'
// answers: every third new anomaly gets a false-positive verdict
// (FEEDBACK 1), the next one a FEEDBACK 0 row the detector must leave alone,
// and now and then a verdict names an anomaly that does not exist.
//
// Every committed write is appended to LEDGER once it is durable:
//   jobs FIRST LAST     keys cw-FIRST .. cw-LAST were queued
//   verdict ID          FEEDBACK 1 for anomaly ID
//   keep ID             a row the detector must not consume
//   done JOBS           the writer finished normally
// A transaction that fails (busy beyond the timeout) is rolled back and
// retried with the same keys; failures are counted and printed.
//
// usage: concurrent_queue_writer DB LEDGER SECONDS RATE BATCH SEED

#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/concurrency/JobFactory.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPrefix = "cw-";
constexpr int kAnomalyEvery = 20;  // one queued job in 20 is made anomalous
constexpr int kFeedbackEveryMs = 500;
constexpr int kUnknownVerdictEvery = 10;  // feedback rounds
constexpr int kMaxAttempts = 50;

struct Stats {
  long long transactions = 0;
  long long failed_transactions = 0;
  double longest_transaction_ms = 0;
};

// Runs body inside BEGIN IMMEDIATE ... COMMIT; on failure rolls back, calls
// undo and tries again. Returns when committed.
template <typename Body, typename Undo>
void in_transaction(sqlite3* db, Stats& stats, Body body, Undo undo) {
  for (int attempt = 1;; ++attempt) {
    const auto start = Clock::now();
    try {
      if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("BEGIN IMMEDIATE: ") + sqlite3_errmsg(db));
      }
      body();
      if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("COMMIT: ") + sqlite3_errmsg(db));
      }
      ++stats.transactions;
      const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      if (ms > stats.longest_transaction_ms) stats.longest_transaction_ms = ms;
      return;
    } catch (const std::exception& e) {
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
      undo();
      ++stats.failed_transactions;
      std::cerr << "writer: transaction failed (attempt " << attempt << "): " << e.what() << "\n";
      if (attempt >= kMaxAttempts) throw;
    }
  }
}

void insert_feedback(sqlite3_stmt* st, const std::string& id, int feedback) {
  sqlite3_reset(st);
  sqlite3_bind_text(st, 1, id.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_int(st, 2, feedback);
  const int rc = sqlite3_step(st);
  if (rc != SQLITE_DONE) throw std::runtime_error(std::string("feedback insert: ") + sqlite3_errstr(rc));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "usage: concurrent_queue_writer DB LEDGER SECONDS RATE BATCH SEED\n";
    return 2;
  }
  const std::string db_path = argv[1];
  const double seconds = std::atof(argv[3]);
  const int rate = std::atoi(argv[4]);
  const int batch = std::atoi(argv[5]);
  const auto seed = static_cast<std::uint64_t>(std::atoll(argv[6]));
  if (seconds <= 0 || rate <= 0 || batch <= 0) {
    std::cerr << "concurrent_queue_writer: SECONDS, RATE and BATCH must be positive\n";
    return 2;
  }
  std::ofstream ledger(argv[2], std::ios::trunc);
  try {
    reliability::SqliteFile file(db_path);
    sqlite3* db = file.handle();
    reliability::JobFactory factory(file, kPrefix, seed, kAnomalyEvery);
    sqlite3_stmt* insert_job = reliability::JobFactory::prepare_insert(db);
    sqlite3_stmt* insert_verdict = nullptr;
    if (sqlite3_prepare_v2(db, "INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES (?, ?)", -1,
                           &insert_verdict, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(db));
    }

    Stats stats;
    std::set<std::string> seen_anomalies;
    long long answers = 0;
    long long feedback_rounds = 0;
    long long verdicts = 0;
    long long kept = 0;
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(double(batch) / rate));
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto next_tick = start;
    auto next_feedback = start + std::chrono::milliseconds(kFeedbackEveryMs);
    while (next_tick < end) {
      std::this_thread::sleep_until(next_tick);
      next_tick += period;

      const long long first = factory.made() + 1;
      long long queued = 0;
      in_transaction(
          db, stats,
          [&] {
            for (int i = 0; i < batch; ++i) {
              factory.insert_next(insert_job);
              ++queued;
            }
          },
          [&] {
            factory.forget(queued);
            queued = 0;
          });
      ledger << "jobs " << first << " " << factory.made() << "\n" << std::flush;

      if (Clock::now() < next_feedback) continue;
      next_feedback += std::chrono::milliseconds(kFeedbackEveryMs);
      ++feedback_rounds;
      // Answers to the anomalies reported since the last round.
      std::vector<std::pair<std::string, int>> answers_now;
      for (auto& row : file.rows("SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA WHERE DETECTION_KEY LIKE 'cw-%' "
                                 "ORDER BY rowid")) {
        if (!seen_anomalies.insert(row[0]).second) continue;
        ++answers;
        if (answers % 3 == 1) answers_now.emplace_back(row[0], 1);
        if (answers % 3 == 2) answers_now.emplace_back(row[0], 0);
      }
      if (feedback_rounds % kUnknownVerdictEvery == 0) {
        answers_now.emplace_back("cw-no-such-anomaly-" + std::to_string(feedback_rounds), 1);
      }
      if (answers_now.empty()) continue;
      in_transaction(
          db, stats,
          [&] {
            for (const auto& [id, feedback] : answers_now) insert_feedback(insert_verdict, id, feedback);
          },
          [] {});
      for (const auto& [id, feedback] : answers_now) {
        const bool consumable = feedback == 1 && id.rfind("cw-no-such-anomaly-", 0) != 0;
        ledger << (consumable ? "verdict " : "keep ") << id << "\n";
        (consumable ? verdicts : kept) += 1;
      }
      ledger << std::flush;
    }
    sqlite3_finalize(insert_job);
    sqlite3_finalize(insert_verdict);
    ledger << "done " << factory.made() << "\n" << std::flush;
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf(
        "writer: %lld jobs queued in %.1f s over %zu workloads; %lld false-positive verdicts, %lld rows to keep; "
        "%lld transactions, %lld failed and retried, longest %.1f ms\n",
        factory.made(), elapsed, factory.workload_count(), verdicts, kept, stats.transactions,
        stats.failed_transactions, stats.longest_transaction_ms);
  } catch (const std::exception& e) {
    std::cerr << "concurrent_queue_writer: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
