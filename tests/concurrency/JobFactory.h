// JobFactory: makes new backup jobs for the workloads of a simulated domain,
// the way the backup product queues them: the next day's job of a workload,
// its features close to the workload's latest history row, now and then (at
// random, one job in anomaly_every) an injected anomaly: size, file count
// and data transferred 4 to 64 times larger or smaller. Keys are
// <prefix><sequence>, job ids 800000000 + sequence, so every job and its
// anomaly id are unique. Used by the concurrent queue writer and the soak.
#pragma once

#include <sqlite3.h>

#include <cmath>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/crash/QueueAudit.h"

namespace reliability {

class JobFactory {
 public:
  // Reads the latest history row of every workload of the database.
  JobFactory(const SqliteFile& db, std::string key_prefix, std::uint64_t seed, int anomaly_every)
      : prefix_(std::move(key_prefix)), state_(seed | 1), anomaly_every_(anomaly_every) {
    const char* latest =
        "SELECT BACKUP_ID, MAX(BACKUP_TIME), CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, "
        "NUM_FILES, IMAGE_SIZE, PARENT_JOB_ID, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE, DESTINATION_STORAGE_NAME, "
        "STREAM_NUMBER, ASSET_ID FROM HIST_DATA GROUP BY CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, "
        "APP_TYPE, DESTINATION_STORAGE_NAME, ASSET_ID ORDER BY CLIENT, POLICY, SCHEDULE_NAME, "
        "DESTINATION_STORAGE_NAME, ASSET_ID";
    for (auto& row : db.rows(latest)) {
      Workload w;
      w.cells = row;
      w.last_time = std::stoll(row[1]);
      workloads_.push_back(std::move(w));
    }
    if (workloads_.empty()) throw std::runtime_error("JobFactory: the database holds no history");
  }

  std::size_t workload_count() const { return workloads_.size(); }
  long long made() const { return sequence_; }

  static std::string key_of(const std::string& prefix, long long sequence) { return prefix + std::to_string(sequence); }

  // Inserts the next job (round robin over the workloads) with the
  // statement prepared by prepare_insert; returns its UNIQUE_KEY.
  std::string insert_next(sqlite3_stmt* insert) {
    const long long seq = ++sequence_;
    Workload& w = workloads_[static_cast<std::size_t>(seq - 1) % workloads_.size()];
    w.last_time += 86400;
    // Drawn, not counted: a fixed stride would put every anomaly into the
    // same few workloads of the round robin.
    const bool anomalous = anomaly_every_ > 0 && next_random() % static_cast<std::uint64_t>(anomaly_every_) == 0;
    const double factor = anomalous ? anomaly_factor() : 1.0;
    const std::string key = key_of(prefix_, seq);
    const long long job_id = 800000000LL + seq;
    const double files = std::stod(w.cells[8]) * jitter() * factor;
    const double size = std::stod(w.cells[9]) * jitter() * factor;
    const double kb = std::stod(w.cells[11]) * jitter() * factor;
    const double total_time = std::stod(w.cells[12]) * jitter();
    const double dedup = std::stod(w.cells[13]) * jitter();

    sqlite3_reset(insert);
    int i = 1;
    bind(insert, i++, prefix_ + "img-" + std::to_string(seq));   // BACKUP_ID
    sqlite3_bind_int64(insert, i++, w.last_time);                // BACKUP_TIME
    for (int c = 2; c <= 7; ++c) bind(insert, i++, w.cells[c]);  // CLIENT .. APP_TYPE
    sqlite3_bind_int64(insert, i++, static_cast<long long>(files));
    sqlite3_bind_double(insert, i++, size);
    sqlite3_bind_int64(insert, i++, job_id);
    sqlite3_bind_int64(insert, i++, job_id - 1);  // PARENT_JOB_ID
    sqlite3_bind_double(insert, i++, kb);
    sqlite3_bind_int64(insert, i++, w.last_time - static_cast<long long>(total_time));  // START_TIME
    sqlite3_bind_int64(insert, i++, w.last_time);                                       // END_TIME
    sqlite3_bind_int64(insert, i++, static_cast<long long>(total_time));
    sqlite3_bind_double(insert, i++, dedup);
    sqlite3_bind_int(insert, i++, 0);  // USER_IDENTIFIED_CLUSTER, as the product leaves it
    bind(insert, i++, w.cells[14]);    // DESTINATION_STORAGE_NAME
    bind(insert, i++, w.cells[15]);    // STREAM_NUMBER
    bind(insert, i++, w.cells[16]);    // ASSET_ID
    bind(insert, i++, key);            // UNIQUE_KEY
    sqlite3_bind_int(insert, i, 0);    // PROCESSED_STATUS
    const int rc = sqlite3_step(insert);
    if (rc != SQLITE_DONE) {
      --sequence_;
      w.last_time -= 86400;
      throw std::runtime_error(std::string("cannot queue a job: ") + sqlite3_errstr(rc));
    }
    return key;
  }

  // Takes back the last n jobs of a transaction that was rolled back, so the
  // same keys are made again.
  void forget(long long n) {
    for (long long k = 0; k < n; ++k, --sequence_) {
      workloads_[static_cast<std::size_t>(sequence_ - 1) % workloads_.size()].last_time -= 86400;
    }
  }

  static sqlite3_stmt* prepare_insert(sqlite3* db) {
    sqlite3_stmt* st = nullptr;
    const char* sql =
        "INSERT INTO DATA_TO_PROCESS (BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, "
        "SCHEDULE_NAME, APP_TYPE, NUM_FILES, IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, KB_TRANSFERRED, START_TIME, END_TIME, "
        "TOTAL_TIME, DEDUP_RATE, USER_IDENTIFIED_CLUSTER, DESTINATION_STORAGE_NAME, STREAM_NUMBER, ASSET_ID, "
        "UNIQUE_KEY, PROCESSED_STATUS) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("cannot prepare the queue insert: ") + sqlite3_errmsg(db));
    }
    return st;
  }

 private:
  struct Workload {
    std::vector<std::string> cells;
    long long last_time = 0;
  };

  static void bind(sqlite3_stmt* st, int index, const std::string& text) {
    sqlite3_bind_text(st, index, text.c_str(), -1, SQLITE_TRANSIENT);
  }

  // A xorshift generator: the same seed gives the same jobs.
  std::uint64_t next_random() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_;
  }

  double uniform() { return static_cast<double>(next_random() % 1000001) / 1000000.0; }

  // 0.98 .. 1.02
  double jitter() { return 0.98 + 0.04 * uniform(); }

  // 4 to 64 times larger or smaller, spread so that anomalies do not form a
  // cluster of their own (nor all fall within reach of one confirmed false
  // positive).
  double anomaly_factor() {
    const double factor = std::pow(4.0, 1.0 + 2.0 * uniform());
    return next_random() % 2 == 0 ? factor : 1.0 / factor;
  }

  std::string prefix_;
  std::uint64_t state_;
  int anomaly_every_;
  long long sequence_ = 0;
  std::vector<Workload> workloads_;
};

}  // namespace reliability
