#include "cli/StatusCommand.h"

#include <ctime>
#include <iostream>
#include <string>

#include "platform/VisibleText.h"
#include "schema/SchemaAudit.h"
#include "operator/AnomalyStore.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"
#include "upgrade/SchemaDiff.h"
#include "replay/UnjudgeableJobs.h"
#include "upgrade/UpgradeAdvice.h"
#include "operator/StatusFigures.h"

const CommandArgs::Syntax kStatusSyntax{
    {{.name = "-config_file",
      .value_name = "INI",
      .help = "the configuration the service uses, to judge the pending jobs"}},
    1,
    1,
    {"DB"}};

const std::string kStatusHelp =
    "usage: tsanomalyctl status DB [-config_file INI]\n"
    "\n"
    "Shows the queue (jobs pending detection, and reported jobs awaiting an\n"
    "operator's verdict), the history the detector trains on, the number of\n"
    "workloads and of calibrated models, and the anomalies of the last 24 hours,\n"
    "the last 7 days and in total; then any trigger or view in DB that the\n"
    "detector's schema does not define; then, one line each, where the database\n"
    "differs from the detector's schema (indexes, triggers, journal mode), with\n"
    "what it costs and the 'tsanomalyctl upgrade' command to run; last, for each\n"
    "alert channel, the alerts delivered, failing, given up and withdrawn, and\n"
    "how long the oldest undelivered one has waited.\n"
    "\n"
    "When some pending jobs cannot be judged by the next pass (they would stay\n"
    "pending at every pass), it says how many and why, judged with the\n"
    "configuration INI the service uses (-config_file; built-in defaults without).\n"
    "\n" +
    options_help(kStatusSyntax.options);

namespace {

// Schema code the detector did not ship, as the service warns about it at
// start-up: one line per trigger or view, by name.
void print_unknown_schema_objects(AnomalyStore& store) {
  for (const SchemaObject& object : unknown_schema_objects(store.database())) {
    const std::string label = "Unknown " + object.type;
    std::cout << label << std::string(28 - label.size(), ' ') << visible_text(object.name)
              << " (not defined by the detector's schema)\n";
  }
}

// Pending jobs the next pass would leave pending, by reason, with what to
// change; nothing when every pending job can be judged.
void print_unjudgeable(const std::string& path, const std::string& config_file) {
  ReplaySettings settings;
  settings.config_file = config_file;
  const UnjudgeableCount counted = count_unjudgeable_jobs(path, settings);
  if (counted.total() == 0) return;
  const auto reason = [](const char* label, long long n, const std::string& hint) {
    if (n == 0) return;
    std::cout << "  " << label << std::string(26 - std::string(label).size(), ' ') << n << "  (" << hint << ")\n";
  };
  std::cout << "Cannot be judged" << std::string(12, ' ') << counted.total() << " of the pending jobs\n";
  reason("unequal feature sets", counted.unequal_features,
         "moved storage: set [ANOMALY_MODEL_SETTINGS] JUDGE_ON_FALLBACK_FEATURES=1");
  reason("every feature disabled", counted.features_disabled,
         "see [DISABLE_FEATURE_PER_POLICY_TYPE] in the configuration");
  reason("the pass fails on them", counted.pass_failed, "see the detector's log");
  std::cout << "  'tsanomalyctl explain " << visible_text(path) << " UNIQUE_KEY' shows why for one job\n";
}

void print_schema_findings(AnomalyStore& store, const std::string& path) {
  for (const SchemaFinding& finding : SchemaDiff().compare(store.database(), path)) {
    std::cout << "Schema" << std::string(22, ' ') << visible_text(finding.what) << ": " << finding.cost << " ("
              << (finding.remedy == SchemaFinding::Remedy::by_hand ? "see: " : "run: ")
              << upgrade_command(path, finding.remedy) << ")\n";
  }
}

// One line per alert channel that has had alerts.
void print_alert_figures(const StatusFigures& figures) {
  for (const ChannelFigures& f : figures.alert_channels) {
    const std::string label = "Alerts, " + visible_text(f.channel);
    std::cout << label << std::string(label.size() < 28 ? 28 - label.size() : 1, ' ') << "delivered " << f.delivered
              << ", failing " << f.failing << ", given up " << f.given_up << ", withdrawn " << f.withdrawn;
    if (f.oldest_undelivered_age) std::cout << ", oldest undelivered " << *f.oldest_undelivered_age << " s";
    std::cout << "\n";
  }
}

}  // namespace

int run_status(int argc, char** argv) {
  CommandArgs args(argc, argv, kStatusSyntax);
  if (auto exit_code = args.help_or_usage_error("status", kStatusHelp)) return *exit_code;
  try {
    const std::string& path = args.positional()[0];
    AnomalyStore store(path);
    const time_t now = std::time(nullptr);
    const StatusFigures figures = read_status_figures(store.database(), now);
    const HistoryCounts history = read_history_counts(store.database(), now);
    const auto line = [](const char* label, long long value) {
      std::cout << label << std::string(28 - std::string(label).size(), ' ') << value << "\n";
    };
    line("Pending jobs", figures.pending);
    line("Processed, awaiting verdict", figures.awaiting_verdict);
    line("History rows", history.rows);
    line("Workloads", history.workloads);
    line("Calibrated models", figures.models);
    line("Anomalies, last 24 hours", figures.last_day);
    line("Anomalies, last 7 days", figures.last_week);
    line("Anomalies, total", figures.anomalies);
    print_unjudgeable(path, args.value("-config_file").value_or(""));
    print_unknown_schema_objects(store);
    print_schema_findings(store, path);
    print_alert_figures(figures);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl status: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
