#include "cli/ReportCommand.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "operator/AnomalyStore.h"
#include "operator/DatabaseFiles.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"
#include "report/HtmlReport.h"
#include "util/SafeFile.h"

const CommandArgs::Syntax kReportSyntax{
    {{.name = "-o",
      .value_name = "FILE",
      .help = "where to write the page (an existing file is replaced)",
      .alias = "--output"},
     {.name = "--limit",
      .value_name = "N",
      .help = "at most N cards (default 100); the summary counts all",
      .whole = WholeRange{0, 1000000000}},
     {.name = "--days",
      .value_name = "D",
      .help = "chart the D days of history before each job (default 180)",
      .whole = WholeRange{1, 100000}}},
    1,
    1,
    {"DB"}};

const std::string kReportHelp =
    "usage: tsanomalyctl report DB -o FILE.html [--limit N] [--days D]\n"
    "\n"
    "Writes one HTML page about the anomalies in the detector database DB: a\n"
    "summary (how many, which clients, how recent, the most frequent kind), then\n"
    "one card per anomaly, newest first, with a chart of the workload's history\n"
    "for every feature that left its usual range. The page is self-contained:\n"
    "no scripts, nothing fetched; open it in any browser, also offline.\n"
    "\n" +
    options_help(kReportSyntax.options);

namespace {

constexpr long long kDefaultLimit = 100;
constexpr long long kDefaultDays = 180;

int usage_error(const std::string& message) { return CommandArgs::usage_error("report", message); }

}  // namespace

int run_report(int argc, char** argv) {
  CommandArgs args(argc, argv, kReportSyntax);
  const long long limit = args.integer("--limit", kDefaultLimit);
  const long long days = args.integer("--days", kDefaultDays);
  if (auto exit_code = args.help_or_usage_error("report", kReportHelp)) return *exit_code;
  const auto output = args.value("-o");
  if (!output) return usage_error("missing -o FILE.html: where to write the page");
  if (output->empty()) return usage_error("-o needs a file name");
  const std::string& database = args.positional()[0];
  if (const auto suffix = database_files::named_by(database, *output)) {
    return usage_error(database_files::refusal("-o", *suffix));
  }

  try {
    AnomalyStore store(database);
    // The summary needs every anomaly but no payload; payloads and
    // histories are read for the cards shown only, one card at a time. One
    // read transaction keeps the cards the newest of the anomalies counted.
    store.database().begin_transaction();
    const std::vector<AnomalyRecord> all = store.summaries();
    HtmlReport report(database, std::time(nullptr));
    report.summarise(all);
    const std::size_t shown = std::min(all.size(), static_cast<std::size_t>(limit));
    if (shown > 0) {
      AnomalyStore::Filter cards;
      cards.limit = static_cast<long long>(shown);
      store.visit_anomalies(cards, [&](const AnomalyRecord& anomaly) {
        report.add_card(anomaly, store.history_of(anomaly, static_cast<int>(days)));
      });
    }
    store.database().commit_transaction();
    SafeFile::replace(*output, report.html());
    std::cout << "Wrote " << *output << ": " << shown << " of " << all.size()
              << (all.size() == 1 ? " anomaly" : " anomalies") << ".\n";
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl report: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
