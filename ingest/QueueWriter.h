// QueueWriter: writes finished jobs, already complete and checked, into a
// detector database's queue (or its history), each unless either table
// holds its key already. Jobs are written in short batches, each one
// transaction that takes the write lock only once its rows are ready, so a
// detection pass never waits on a slow input and no row is ever half
// written. Owns its connection; every failure throws std::runtime_error
// with a message for the operator naming the database.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ingest/IngestedJob.h"
#include "storage/DBAccess.h"

// The group whose members may write the queue (the package creates it).
inline constexpr const char* kIngestGroup = "tsanomaly-ingest";

class QueueWriter {
 public:
  static constexpr std::size_t kBatchJobs = 512;

  QueueWriter(const std::string& path, bool as_history);

  // Queues the job; it is written at the latest by flush().
  void add(IngestedJob job);
  // Writes every job added so far.
  void flush();

  long long written() const { return written_; }
  long long already_known() const { return already_known_; }

 private:
  void write_batch();

  std::string path_;
  std::unique_ptr<Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess> db_;
  std::string insert_sql_;
  std::vector<IngestedJob> batch_;
  long long written_ = 0;
  long long already_known_ = 0;
};
