#include "cli/CommandTable.h"

#include <cstring>

#include "cli/AlertCommand.h"
#include "cli/AnomaliesCommand.h"
#include "cli/DetectCommand.h"
#include "cli/ExplainCommand.h"
#include "cli/FeedbackCommand.h"
#include "cli/IngestCommand.h"
#include "cli/InitCommand.h"
#include "cli/ReportCommand.h"
#include "cli/ServeCommand.h"
#include "cli/SimulateCommand.h"
#include "cli/StatusCommand.h"
#include "cli/UpgradeCommand.h"

namespace {

const Command kCommands[] = {
    {"init", "create a detector database", run_init, kInitSyntax},
    {"detect", "run one detection pass now", run_detect, kDetectSyntax},
    {"anomalies", "list reported anomalies, newest first", run_anomalies, kAnomaliesSyntax},
    {"feedback", "report an anomaly as a false positive", run_feedback, kFeedbackSyntax},
    {"explain", "show how a job of the queue is judged, step by step", run_explain, kExplainSyntax},
    {"report", "write an HTML page of the anomalies with charts", run_report, kReportSyntax},
    {"serve", "serve the operator console: pages, JSON API, metrics", run_serve, kServeSyntax},
    {"status", "queue, history, models and recent anomalies", run_status, kStatusSyntax},
    {"ingest", "queue the finished jobs a backup tool reports", run_ingest, kIngestSyntax},
    {"simulate", "fill a database with synthetic backup jobs", run_simulate, kSimulateSyntax},
    {"upgrade", "compare a database with the detector's schema; add what is missing", run_upgrade, kUpgradeSyntax},
    {"alert", "send alerts for new anomalies (the alert process)", run_alert, kAlertSyntax},
    {"alert-test", "send a test alert through every configured channel", run_alert_test, kAlertTestSyntax},
};

}  // namespace

std::span<const Command> all_commands() { return kCommands; }

const Command* find_command(const char* name) {
  for (const Command& command : kCommands) {
    if (std::strcmp(command.name, name) == 0) {
      return &command;
    }
  }
  return nullptr;
}

void print_usage(std::ostream& out) {
  out << "usage: tsanomalyctl COMMAND [OPTIONS]\n       tsanomalyctl --version\n\ncommands:\n";
  for (const Command& command : kCommands) {
    out << "  " << command.name << std::string(12 - std::strlen(command.name), ' ') << command.summary << "\n";
  }
  out << "\nRun 'tsanomalyctl COMMAND --help' for a command's options.\n";
}
