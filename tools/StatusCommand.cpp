#include "tools/StatusCommand.h"

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "platform/VisibleText.h"
#include "schema/ConsoleSql.h"
#include "schema/SchemaAudit.h"
#include "storage/Statement.h"
#include "tools/AnomalyStore.h"
#include "tools/CommandArgs.h"
#include "tools/ErrorText.h"
#include "tools/SchemaDiff.h"
#include "tools/UpgradeCommand.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

const char* const kStatusHelp =
    "usage: tsanomalyctl status DB\n"
    "\n"
    "Shows the queue (jobs pending detection, and reported jobs awaiting an\n"
    "operator's verdict), the history the detector trains on, the number of\n"
    "workloads and of calibrated models, and the anomalies of the last 24 hours,\n"
    "the last 7 days and in total; then any trigger or view in DB that the\n"
    "detector's schema does not define; then, one line each, where the database\n"
    "differs from the detector's schema (indexes, triggers, journal mode), with\n"
    "what it costs and the 'tsanomalyctl upgrade' command to run.\n";

namespace {

// One number from a query whose single result column is named N.
long long count(AnomalyStore& store, const std::string& sql, double bound = 0) {
  Statement st(store.database().handle, sql);
  if (sql.find('?') != std::string::npos) st.bind(1, bound);
  Rows rows;
  store.database().read_data_prepared(st, rows);
  return rows.empty() ? 0 : std::strtoll(rows[0]["N"].text().c_str(), nullptr, 10);
}

// Schema code the detector did not ship, as the service warns about it at
// start-up: one line per trigger or view, by name.
void print_unknown_schema_objects(AnomalyStore& store) {
  for (const SchemaObject& object : unknown_schema_objects(store.database())) {
    const std::string label = "Unknown " + object.type;
    std::cout << label << std::string(28 - label.size(), ' ') << visible_text(object.name)
              << " (not defined by the detector's schema)\n";
  }
}

void print_schema_findings(AnomalyStore& store, const std::string& path) {
  for (const SchemaFinding& finding : SchemaDiff().compare(store.database(), path)) {
    std::cout << "Schema" << std::string(22, ' ') << visible_text(finding.what) << ": " << finding.cost << " ("
              << (finding.remedy == SchemaFinding::Remedy::by_hand ? "see: " : "run: ")
              << upgrade_command(path, finding.remedy) << ")\n";
  }
}

}  // namespace

int run_status(int argc, char** argv) {
  CommandArgs args(argc, argv, {{}, {}, 1, 1});
  if (auto exit_code = args.help_or_usage_error("status", kStatusHelp)) return *exit_code;
  try {
    const std::string& path = args.positional()[0];
    AnomalyStore store(path);
    const double now = static_cast<double>(std::time(nullptr));
    const auto line = [](const char* label, long long value) {
      std::cout << label << std::string(28 - std::string(label).size(), ' ') << value << "\n";
    };
    line("Pending jobs", count(store, console_sql::kPendingJobs));
    line("Processed, awaiting verdict", count(store, console_sql::kAwaitingVerdict));
    line("History rows", count(store, console_sql::kHistoryRows));
    line("Workloads",
         count(store, console_sql::kWorkloads));
    line("Calibrated models", count(store, console_sql::kCalibratedModels));
    line("Anomalies, last 24 hours",
         count(store, console_sql::kAnomaliesSince, now - 86400));
    line("Anomalies, last 7 days",
         count(store, console_sql::kAnomaliesSince, now - 7 * 86400));
    line("Anomalies, total", count(store, console_sql::kAnomaliesTotal));
    print_unknown_schema_objects(store);
    print_schema_findings(store, path);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl status: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
