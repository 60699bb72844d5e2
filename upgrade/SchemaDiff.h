// SchemaDiff: what an existing database lacks of the detector's schema
// (schema/anomaly_db.sql, compiled in): each difference with what it costs
// the detector and whether `tsanomalyctl upgrade` can add it in place.
// Indexes are compared by definition, not by name, so an equivalent index
// under another name counts as present. Comparing writes nothing.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "storage/DBAccess.h"
#include "upgrade/SchemaCatalog.h"

struct SchemaFinding {
  enum class Remedy {
    create,         // upgrade --apply runs sql
    switch_to_wal,  // upgrade --apply --wal
    by_hand,        // reported only: why_not says why
  };
  Remedy remedy = Remedy::by_hand;
  std::string what;     // e.g. "missing index HIST_DATA_BY_WORKLOAD on HIST_DATA"
  std::string object;   // Remedy::create: "index HIST_DATA_BY_WORKLOAD on HIST_DATA"
  std::string cost;     // one short line: what the detector pays without it
  std::string sql;      // Remedy::create: the schema's own CREATE statement
  std::string why_not;  // Remedy::by_hand: why upgrade leaves it alone
};

// Thrown for a database that lacks one of the detector's tables.
class NotADetectorDatabase : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class SchemaDiff {
 public:
  // The journal mode anomaly_db.sql switches a database to.
  static constexpr const char* kDetectorJournalMode = "wal";

  // Loads anomaly_db.sql into a private in-memory database.
  SchemaDiff();

  // Differences of db from the schema: what can be created first, then the
  // journal mode, then what upgrade leaves alone. Throws NotADetectorDatabase
  // naming path when a table is missing; sqlite_exception when db cannot be
  // read.
  std::vector<SchemaFinding> compare(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db,
                                     const std::string& path) const;

 private:
  std::vector<std::string> tables_;
  SchemaCatalog schema_;
};
