#include "cli/InitCommand.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <set>
#include <string>

#include "platform/VisibleText.h"
#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "cli/CommandArgs.h"
#include "util/SafeFile.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;

const CommandArgs::Syntax kInitSyntax{
    {{.name = "--force", .help = "create the tables also in a file that holds other tables"}}, 1, 1, {"DB"}};

const std::string kInitHelp =
    "usage: tsanomalyctl init DB [--force]\n"
    "\n"
    "Creates the detector's five tables (DATA_TO_PROCESS, HIST_DATA,\n"
    "DBSCAN_MODEL_PARAMS, ANOMALY_DATA, ANOMALY_DATA_FEEDBACK) and their indexes\n"
    "in DB, creating the file when it does not exist, and switches it to WAL mode;\n"
    "then the alert process's tables (ALERT_CHANNEL, ALERT_DELIVERY, ALERT_FIRING).\n"
    "DB must be a regular file or a new path: a symbolic link or a device is\n"
    "refused.\n"
    "Running it again on a detector database changes nothing. A file that holds\n"
    "other tables is left alone unless --force is given.\n"
    "\n" +
    options_help(kInitSyntax.options);

namespace {

// The detector's five tables and the alert process's three.
const std::set<std::string> kDetectorTables = {"DATA_TO_PROCESS", "HIST_DATA",      "DBSCAN_MODEL_PARAMS",
                                               "ANOMALY_DATA",    "ANOMALY_DATA_FEEDBACK", "ALERT_CHANNEL",
                                               "ALERT_DELIVERY",  "ALERT_FIRING"};

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

// A new path is created here as a regular file that nobody else can have
// prepared; an existing one must already be a regular file. Anything else (a
// symbolic link, dangling or not, a device, a folder) is refused: SQLite
// would otherwise create the link's target, or journal files beside a device.
void prepare_database_file(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno != ENOENT) throw std::runtime_error(std::strerror(errno));
    SafeFile::create_new(path);
  } else if (!S_ISREG(st.st_mode)) {
    throw std::runtime_error("not a regular file");
  }
}

// SQLite's own message only: the failing statement would be the whole schema.
std::string failure_text(const std::exception& e) {
  if (const auto* storage = dynamic_cast<const sqlite_exception*>(&e); storage && *storage->inner_message()) {
    return visible_text(storage->inner_message());
  }
  return visible_text(e.what());
}

}  // namespace

int run_init(int argc, char** argv) {
  CommandArgs args(argc, argv, kInitSyntax);
  if (auto exit_code = args.help_or_usage_error("init", kInitHelp)) return *exit_code;
  const std::string path = args.positional()[0];
  try {
    prepare_database_file(path);
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW);
    const std::set<std::string> foreign = foreign_tables(db);
    if (!foreign.empty() && !args.flag("--force")) {
      std::cerr << "tsanomalyctl init: '" << path << "' already holds other tables (" << *foreign.begin()
                << (foreign.size() > 1 ? ", ..." : "") << "); use --force to add the detector's tables anyway\n";
      return 1;
    }
    db.execute_query(anomaly_schema::anomaly_db_sql());
    db.execute_query(anomaly_schema::alert_db_sql());
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl init: cannot initialise '" << path << "': " << failure_text(e) << "\n";
    return 1;
  }
  std::cout << "Detector database ready: " << path << "\n";
  return 0;
}
