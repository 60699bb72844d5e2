#include "cli/AnomaliesCommand.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "platform/LocalTime.h"
#include "platform/VisibleText.h"
#include "operator/AnomalyStore.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"
#include "operator/TimeText.h"
#include "util/Json.h"

const CommandArgs::Syntax kAnomaliesSyntax{
    {{.name = "--json", .help = "one JSON object per line, with the whole stored payload"},
     {.name = "--client", .value_name = "NAME", .help = "only this client (letter case ignored)"},
     {.name = "--since",
      .value_name = "DATE",
      .help = "only anomalies detected at or after DATE, local time,\nas YYYY-MM-DD or 'YYYY-MM-DD HH:MM[:SS]'"},
     {.name = "--limit", .value_name = "N", .help = "at most N anomalies (default 100)", .whole = WholeRange{1, 1000000000}}},
    1,
    1,
    {"DB"}};

const std::string kAnomaliesHelp =
    "usage: tsanomalyctl anomalies DB [--json] [--client NAME] [--since DATE] [--limit N]\n"
    "\n"
    "Lists the reported anomalies, newest first: id, client, policy, detection\n"
    "time, summary (the features that left their usual range) and score (the\n"
    "distance to the nearest cluster of normal jobs; larger is stranger).\n"
    "\n" +
    options_help(kAnomaliesSyntax.options);

namespace {

constexpr long long kDefaultLimit = 100;

// Columns line up on a terminal by characters, not bytes: UTF-8
// continuation bytes take no room.
size_t display_width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void print_table(const std::vector<AnomalyRecord>& records) {
  const std::vector<std::string> headers = {"ID", "CLIENT", "POLICY", "DETECTED", "SUMMARY", "SCORE"};
  std::vector<std::vector<std::string>> cells;
  for (const AnomalyRecord& r : records) {
    // Every cell comes from the database: escaped so none can act on the terminal.
    cells.push_back({visible_text(r.id), visible_text(r.client), visible_text(r.policy),
                     local_time_text(r.detection_time), visible_text(r.summary), visible_text(r.score)});
  }
  std::vector<size_t> widths;
  for (const std::string& header : headers) widths.push_back(header.size());
  for (const auto& row : cells) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], display_width(row[i]));
  }
  const auto print_row = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      // The score is a number: right-aligned; the last column needs no padding.
      if (i + 1 == row.size()) {
        line += std::string(widths[i] - display_width(row[i]), ' ') + row[i];
      } else {
        line += row[i] + std::string(widths[i] - display_width(row[i]) + 2, ' ');
      }
    }
    std::cout << line << "\n";
  };
  print_row(headers);
  for (const auto& row : cells) print_row(row);
}

void print_json_lines(const std::vector<AnomalyRecord>& records) {
  for (const AnomalyRecord& r : records) {
    Json line = Json::object();
    line.set("id", Json::string(r.id));
    line.set("client", Json::string(r.client));
    line.set("policy", Json::string(r.policy));
    line.set("detection_time", Json::string(local_time_text(r.detection_time)));
    line.set("detection_epoch", Json::integer(r.detection_time));
    line.set("summary", Json::string(r.summary));
    line.set("score", Json::string(r.score));
    line.set("payload", Json::parsed_or_string(r.payload));
    std::cout << line.dump({.compact = true, .keep_order = true, .escape_separators = true}) << "\n";
  }
}

}  // namespace

int run_anomalies(int argc, char** argv) {
  CommandArgs args(argc, argv, kAnomaliesSyntax);
  AnomalyStore::Filter filter;
  filter.limit = args.integer("--limit", kDefaultLimit);
  filter.client = args.value("--client");
  if (auto exit_code = args.help_or_usage_error("anomalies", kAnomaliesHelp)) return *exit_code;
  if (const auto since = args.value("--since")) {
    filter.since = TimeText::parse_local(*since);
    if (!filter.since) {
      return CommandArgs::usage_error("anomalies",
                                      "--since takes YYYY-MM-DD or 'YYYY-MM-DD HH:MM[:SS]', not '" + *since + "'");
    }
  }
  try {
    const AnomalyStore store(args.positional()[0]);
    const std::vector<AnomalyRecord> records = store.anomalies(filter);
    if (args.flag("--json")) {
      print_json_lines(records);
    } else if (records.empty()) {
      std::cout << "No anomalies reported.\n";
    } else {
      print_table(records);
    }
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl anomalies: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
