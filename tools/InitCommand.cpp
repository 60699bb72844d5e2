#include "tools/InitCommand.h"

#include <sqlite3.h>

#include <iostream>
#include <set>
#include <string>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tools/CommandArgs.h"
#include "tools/ErrorText.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

const char* const kInitHelp =
    "usage: tsanomalyctl init DB [--force]\n"
    "\n"
    "Creates the detector's five tables (DATA_TO_PROCESS, HIST_DATA,\n"
    "DBSCAN_MODEL_PARAMS, ANOMALY_DATA, ANOMALY_DATA_FEEDBACK) and their indexes\n"
    "in DB, creating the file when it does not exist, and switches it to WAL mode.\n"
    "Running it again on a detector database changes nothing. A file that holds\n"
    "other tables is left alone unless --force is given.\n";

namespace {

const std::set<std::string> kDetectorTables = {"DATA_TO_PROCESS", "HIST_DATA", "DBSCAN_MODEL_PARAMS", "ANOMALY_DATA",
                                               "ANOMALY_DATA_FEEDBACK"};

std::set<std::string> foreign_tables(DBAccess& db) {
  Rows rows;
  db.read_data("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'", rows);
  std::set<std::string> foreign;
  for (auto& row : rows) {
    const std::string name = row["name"];
    if (kDetectorTables.count(name) == 0) foreign.insert(name);
  }
  return foreign;
}

}  // namespace

int run_init(int argc, char** argv) {
  CommandArgs args(argc, argv, {{"--force"}, {}, 1, 1});
  if (auto exit_code = args.help_or_usage_error("init", kInitHelp)) return *exit_code;
  const std::string path = args.positional()[0];
  try {
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    const std::set<std::string> foreign = foreign_tables(db);
    if (!foreign.empty() && !args.flag("--force")) {
      std::cerr << "tsanomalyctl init: '" << path << "' already holds other tables (" << *foreign.begin()
                << (foreign.size() > 1 ? ", ..." : "") << "); use --force to add the detector's tables anyway\n";
      return 1;
    }
    db.execute_query(anomaly_schema::anomaly_db_sql());
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl init: cannot initialise '" << path << "': " << ErrorText::of(e) << "\n";
    return 1;
  }
  std::cout << "Detector database ready: " << path << "\n";
  return 0;
}
