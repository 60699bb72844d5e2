#include "replay/JudgementReplay.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "contract/BusyTimeout.h"
#include "contract/WorkloadKey.h"
#include "schema/AnomalySchema.h"
#include "schema/ReplaySql.h"
#include "service/DetectionService.h"
#include "service/PassObserver.h"
#include "service/PendingJob.h"
#include "storage/Statement.h"
#include "replay/ReplayOutcome.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {


// A file: URI that opens path read-only; '%', '?' and '#' would otherwise
// be read as URI syntax. query: "mode=ro", or with "&immutable=1".
std::string read_only_uri(const std::string& path, const std::string& query) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      static const char kHex[] = "0123456789ABCDEF";
      uri += '%';
      uri += kHex[static_cast<unsigned char>(c) >> 4];
      uri += kHex[static_cast<unsigned char>(c) & 0xF];
    } else {
      uri += c;
    }
  }
  return uri + "?" + query;
}

bool attach_source(DBAccess& db, const std::string& uri) {
  try {
    Statement attach(db.handle, replay_sql::kAttachSource);
    attach.bind(1, uri);
    db.execute_query_prepared(attach);
    Rows tables;
    db.read_data(replay_sql::kSourceTables, tables);
    return static_cast<int>(tables.size()) == replay_sql::kDetectorTableCount;
  } catch (const std::exception&) {
    sqlite3_exec(db.handle, "DETACH DATABASE source", nullptr, nullptr, nullptr);
    throw;
  }
}

// Whether the database has no write-ahead log with content: then the file
// alone holds every committed row.
bool no_pending_log(const std::string& path) {
  struct stat log {};
  return stat((path + "-wal").c_str(), &log) != 0 || log.st_size == 0;
}

// An in-memory detector database with the real one attached as "source".
std::unique_ptr<DBAccess> open_copy(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw std::runtime_error("cannot read database '" + path + "'");
  auto db = std::make_unique<DBAccess>(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI);
  db->set_busy_timeout(kBusyTimeoutMs);
  db->execute_query(anomaly_schema::anomaly_db_sql());
  bool detector_tables = false;
  try {
    detector_tables = attach_source(*db, read_only_uri(path, "mode=ro"));
  } catch (const std::exception&) {
    // A database in WAL mode whose folder we may not write (no -shm can be
    // made) opens only as immutable, which is safe while no log has content.
    if (!no_pending_log(path)) throw std::runtime_error("cannot read database '" + path + "'");
    try {
      detector_tables = attach_source(*db, read_only_uri(path, "mode=ro&immutable=1"));
    } catch (const std::exception&) {
      throw std::runtime_error("'" + path + "' is not an SQLite database");
    }
  }
  if (!detector_tables) {
    throw std::runtime_error("'" + path + "' is not a detector database (it lacks the detector's tables)");
  }
  return db;
}

void bind_workload(Statement& st, const Row& job) {
  int index = 1;
  for (const char* column : workload_key::kColumns) {
    const auto found = job.find(column);
    st.bind(index++, found == job.end() ? std::string() : found->second.text());
  }
}

std::string columns_of_table(DBAccess& db, const std::string& table) {
  Rows columns;
  db.read_data("PRAGMA main.table_info(" + table + ")", columns);
  std::string list;
  for (Row& column : columns) list += (list.empty() ? "" : ", ") + std::string(column["name"]);
  return list;
}

// Copies the rows of table that match where (its parameters bound by bind)
// from the source into the copy, by our schema's column names.
template <typename Bind>
void copy_rows(DBAccess& db, const std::string& table, const std::string& where, Bind bind) {
  const std::string columns = columns_of_table(db, table);
  Statement st(db.handle, "INSERT OR IGNORE INTO main." + table + " (" + columns + ") SELECT " + columns +
                              " FROM source." + table + " WHERE " + where);
  bind(st);
  db.execute_query_prepared(st);
}

// The job's workload, its pending verdicts and the job itself (pending),
// copied from the source; counts what the pass would meet first.
void copy_workload(DBAccess& db, Judgement& judgement, long long queue_row) {
  const Row& job = judgement.job;
  const auto by_workload = [&](Statement& st) { bind_workload(st, job); };
  copy_rows(db, "HIST_DATA", replay_sql::kWorkload, by_workload);
  copy_rows(db, "DBSCAN_MODEL_PARAMS", replay_sql::kWorkload, by_workload);
  copy_rows(db, "ANOMALY_DATA", replay_sql::kVerdictsOfWorkload, by_workload);
  copy_rows(db, "ANOMALY_DATA_FEEDBACK", std::string(replay_sql::kVerdictsOfWorkload) + " AND FEEDBACK = 1",
            by_workload);
  copy_rows(db, "DATA_TO_PROCESS", replay_sql::kJobAndJobsOfVerdicts,
            [&](Statement& st) { st.bind(1, judgement.unique_key); });
  Statement pending(db.handle, replay_sql::kMakeJobPending);
  pending.bind(1, judgement.unique_key);
  db.execute_query_prepared(pending);

  Statement earlier(db.handle, replay_sql::kEarlierPendingJobs);
  bind_workload(earlier, job);
  earlier.bind(7, static_cast<double>(queue_row));
  Rows rows;
  db.read_data_prepared(earlier, rows);
  judgement.earlier_pending = rows.empty() ? 0 : std::stoll(rows[0]["N"].text());
  rows.clear();
  db.read_data(replay_sql::kCopiedVerdicts, rows);
  judgement.verdicts_first = rows.empty() ? 0 : std::stoll(rows[0]["N"].text());
  db.execute_query("DETACH DATABASE source");
}

Judgement find_job(DBAccess& db, const std::string& path, const std::string& unique_key, long long& queue_row) {
  Statement st(db.handle, replay_sql::kSourceJob);
  st.bind(1, unique_key);
  Rows rows;
  db.read_data_prepared(st, rows);
  if (rows.empty()) {
    throw std::runtime_error("no job '" + unique_key + "' in DATA_TO_PROCESS of " + path +
                             " (it was accepted into the history, or never queued)");
  }
  Judgement judgement;
  judgement.unique_key = unique_key;
  queue_row = std::stoll(rows[0]["QUEUE_ROW"].text());
  rows[0].erase("QUEUE_ROW");
  judgement.job = rows[0];
  judgement.reported_already = static_cast<int>(judgement.job["PROCESSED_STATUS"]) != 0;
  return judgement;
}

// Collects what the replayed pass logs and prints for the job's judgement,
// and keeps the pass's record of the job when it is decided.
class ReplayObserver : public PassObserver {
 public:
  ReplayObserver(Judgement& judgement, const std::string& unique_key)
      : judgement_(judgement), unique_key_(unique_key) {}
  void logged(int level, const std::string& message) override { judgement_.steps.emplace_back(level, message); }
  void printed(const std::string& text) override { judgement_.standard_output += text; }
  void decided(const DetectionService::Job& job) override {
    if (job.unique_key == unique_key_) seen_ = job;
  }
  const std::optional<DetectionService::Job>& seen() const { return seen_; }

 private:
  Judgement& judgement_;
  const std::string& unique_key_;
  std::optional<DetectionService::Job> seen_;
};

}  // namespace

Judgement replay_judgement(const std::string& database_path, const std::string& unique_key,
                           const ReplaySettings& settings) {
  std::unique_ptr<DBAccess> db = open_copy(database_path);
  long long queue_row = 0;
  Judgement judgement = find_job(*db, database_path, unique_key, queue_row);
  copy_workload(*db, judgement, queue_row);

  DetectionService service(std::move(db), settings.eps, settings.min_samples, settings.config_file);
  ReplayObserver observer(judgement, unique_key);
  service.set_observer(&observer);
  service.do_detection();
  service.set_observer(nullptr);
  if (observer.seen()) replay_outcome::describe_job(service, *observer.seen(), settings.min_samples, judgement);
  replay_outcome::describe_outcome(service, judgement);
  return judgement;
}

std::vector<std::string> pending_job_keys(const std::string& database_path, long long limit) {
  std::unique_ptr<DBAccess> db = open_copy(database_path);
  Statement st(db->handle, replay_sql::kPendingKeys);
  st.bind(1, static_cast<double>(limit));
  Rows rows;
  db->read_data_prepared(st, rows);
  std::vector<std::string> keys;
  for (Row& row : rows) keys.push_back(row["UNIQUE_KEY"].text());
  return keys;
}

const char* outcome_name(ReplayedOutcome outcome) {
  switch (outcome) {
    case ReplayedOutcome::history: return "history";
    case ReplayedOutcome::anomaly: return "anomaly";
    case ReplayedOutcome::processed: return "processed";
    case ReplayedOutcome::pending: break;
  }
  return "pending";
}
