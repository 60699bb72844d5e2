#include "ingest/BaculaCatalogFormat.h"

#include <sqlite3.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ingest/BaculaJob.h"
#include "schema/BaculaCatalogSql.h"
#include "storage/DefensiveConnection.h"

namespace {

namespace sqlite = Corvane::Tessaryn::UsageReporting::SQLiteDatabase;

constexpr const char* kWhere = "catalog";

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* st) const { sqlite3_finalize(st); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;
using Query = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// The whole stream, or none when it is larger than the bound.
std::optional<std::vector<unsigned char>> read_whole(std::istream& in) {
  std::vector<unsigned char> bytes;
  char chunk[1 << 16];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    if (bytes.size() + static_cast<std::size_t>(in.gcount()) > kMaxBaculaCatalogBytes) return std::nullopt;
    bytes.insert(bytes.end(), chunk, chunk + in.gcount());
  }
  if (in.bad()) throw std::runtime_error("cannot read the catalog");
  return bytes;
}

// A catalog in WAL mode says so in its header (bytes 18 and 19 = 2); an
// in-memory copy has no WAL beside it and reads as a rollback database.
void as_rollback_database(std::vector<unsigned char>& bytes) {
  if (bytes.size() >= 100 && bytes[18] == 2 && bytes[19] == 2) bytes[18] = bytes[19] = 1;
}

// A read-only in-memory database over bytes, which must outlive it; the
// SQLite message when the bytes cannot be used.
Database open_copy(std::vector<unsigned char>& bytes, std::string& problem) {
  sqlite3* raw = nullptr;
  if (sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY, nullptr) != SQLITE_OK) {
    sqlite3_close(raw);
    throw std::runtime_error("cannot open an in-memory database");
  }
  Database db(raw);
  sqlite::make_defensive(db.get());
  const int status = sqlite3_deserialize(db.get(), "main", bytes.data(), static_cast<sqlite3_int64>(bytes.size()),
                                         static_cast<sqlite3_int64>(bytes.size()), SQLITE_DESERIALIZE_READONLY);
  if (status != SQLITE_OK) problem = sqlite3_errmsg(db.get());
  return db;
}

// Each cell as text, bounded: a longer one is cut one byte past the bound,
// which the job's checks then refuse.
BaculaJob row_as_job(sqlite3_stmt* st) {
  BaculaJob job;
  for (int i = 0; i < sqlite3_column_count(st); ++i) {
    const auto* cell = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
    const auto length = std::min<std::size_t>(static_cast<std::size_t>(sqlite3_column_bytes(st, i)),
                                              kBaculaMaxFieldBytes + 1);
    job[sqlite3_column_name(st, i)] = cell ? std::string(cell, length) : std::string();
  }
  return job;
}

void read_jobs(sqlite3* db, JobSink& sink) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, bacula_catalog_sql::kBackupJobs, -1, &raw, nullptr) != SQLITE_OK) {
    sqlite3_finalize(raw);
    return sink.skipped(kWhere, std::string("not a Bacula SQLite catalog: ") + sqlite3_errmsg(db));
  }
  Query query(raw);
  long long row = 0;
  int status;
  while ((status = sqlite3_step(query.get())) == SQLITE_ROW)
    deliver_bacula_job(row_as_job(query.get()), "catalog row " + std::to_string(++row), sink);
  if (status != SQLITE_DONE) sink.skipped(kWhere, std::string("the catalog cannot be read: ") + sqlite3_errmsg(db));
}

}  // namespace

void read_bacula_catalog(std::istream& in, JobSink& sink) {
  auto bytes = read_whole(in);
  if (!bytes)
    return sink.skipped(kWhere, "larger than " + std::to_string(kMaxBaculaCatalogBytes >> 20) +
                                    " MiB: export it with the catalog query as CSV (format bacula-csv)");
  as_rollback_database(*bytes);
  std::string problem;
  const Database db = open_copy(*bytes, problem);
  if (!problem.empty()) return sink.skipped(kWhere, "not a Bacula SQLite catalog: " + problem);
  read_jobs(db.get(), sink);
}
