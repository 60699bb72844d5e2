#include "ingest/QueueWriter.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "contract/BusyTimeout.h"
#include "operator/ErrorText.h"
#include "schema/IngestSql.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

std::string folder_of(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// SQLite writes its journal files beside the database, so the folder must be
// writable too. Checked first, to say who may write rather than SQLite's
// "attempt to write a readonly database" at the first batch.
void refuse_unwritable(const std::string& path) {
  struct stat st {};
  const bool found = lstat(path.c_str(), &st) == 0;
  if (!found && errno == ENOENT) {
    throw std::runtime_error("no database '" + path + "'; create it with 'tsanomalyctl init'");
  }
  if (found && !S_ISREG(st.st_mode)) throw std::runtime_error("'" + path + "' is not a regular file");
  // Any other failure to see the file (a folder on the way this user may not
  // enter) is reported by the checks below, which name who may write.
  for (const std::string& target : {path, folder_of(path)}) {
    if (access(target.c_str(), W_OK) != 0) {
      throw std::runtime_error("cannot write '" + target + "' (" + std::strerror(errno) +
                               "): the queue is written by root or by members of the group '" + kIngestGroup +
                               "', which may write the database and its folder");
    }
  }
}

std::unique_ptr<DBAccess> open_job_tables(const std::string& path) {
  refuse_unwritable(path);
  auto db = std::make_unique<DBAccess>(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW);
  db->set_busy_timeout(kBusyTimeoutMs);
  Rows rows;
  try {
    db->read_data(ingest_sql::kJobTablesPresent, rows);
  } catch (const std::exception&) {
    throw std::runtime_error("'" + path + "' is not an SQLite database");
  }
  if (rows.empty() || static_cast<int>(rows[0]["N"]) != 2) {
    throw std::runtime_error("'" + path + "' has no DATA_TO_PROCESS and HIST_DATA; create them with 'tsanomalyctl init'");
  }
  return db;
}

// Cells as the product records them: whole files, kilobytes and seconds, a
// ratio to two decimals. Every number is exact as a double (the job number
// has 53 bits), and the INTEGER columns store the whole ones as integers.
void bind_job(Statement& st, const IngestedJob& job) {
  const double start = static_cast<double>(*job.start_time);
  const std::string* texts[] = {&job.client,        &job.policy,        &job.policy_type,
                                &job.schedule_type, &job.schedule_name, &job.tool};
  int cell = 0;
  st.reset();
  st.bind(++cell, job.client + "_" + std::to_string(*job.start_time));
  st.bind(++cell, start);
  for (const std::string* text : texts) st.bind(++cell, *text);
  st.bind(++cell, std::round(job.num_files));
  st.bind(++cell, std::round(job.image_size_kb));
  st.bind(++cell, static_cast<double>(ingest_job_number(job.tool_job_id)));
  st.bind(++cell, 0);  // PARENT_JOB_ID: a tool's job has no parent job
  st.bind(++cell, std::round(job.kb_transferred));
  st.bind(++cell, start);
  st.bind(++cell, static_cast<double>(*job.end_time));
  st.bind(++cell, std::round(job.total_time_s));
  st.bind(++cell, std::round(job.dedup_rate * 100) / 100);
  st.bind(++cell, job.storage);
  st.bind(++cell, 0);  // STREAM_NUMBER: one stream, so the pass never takes its stream check
  st.bind(++cell, job.asset);
  st.bind(++cell, ingest_unique_key(job));
}

}  // namespace

QueueWriter::QueueWriter(const std::string& path, bool as_history)
    : path_(path),
      db_(open_job_tables(path)),
      insert_sql_(as_history ? ingest_sql::history_job() : ingest_sql::queue_job()) {}

void QueueWriter::add(IngestedJob job) {
  batch_.push_back(std::move(job));
  if (batch_.size() >= kBatchJobs) write_batch();
}

void QueueWriter::flush() { write_batch(); }

// The counts change only once the batch is committed.
void QueueWriter::write_batch() {
  if (batch_.empty()) return;
  long long written = 0;
  try {
    db_->execute_query("BEGIN IMMEDIATE");
    Statement st(db_->handle, insert_sql_);
    for (const IngestedJob& job : batch_) {
      bind_job(st, job);
      db_->execute_query_prepared(st);
      written += sqlite3_changes(db_->handle);
    }
    db_->commit_transaction();
  } catch (const std::exception& e) {
    if (!db_->is_auto_commit_on()) db_->rollback_transaction();
    throw std::runtime_error("cannot write '" + path_ + "': " + ErrorText::of(e));
  }
  written_ += written;
  already_known_ += static_cast<long long>(batch_.size()) - written;
  batch_.clear();
}
