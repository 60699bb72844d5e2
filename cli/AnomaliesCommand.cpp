#include "cli/AnomaliesCommand.h"

#include <jansson.h>

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
#include "util/Text.h"

const char* const kAnomaliesHelp =
    "usage: tsanomalyctl anomalies DB [--json] [--client NAME] [--since DATE] [--limit N]\n"
    "\n"
    "Lists the reported anomalies, newest first: id, client, policy, detection\n"
    "time, summary (the features that left their usual range) and score (the\n"
    "distance to the nearest cluster of normal jobs; larger is stranger).\n"
    "\n"
    "  --json          one JSON object per line, with the whole stored payload\n"
    "  --client NAME   only this client (letter case ignored)\n"
    "  --since DATE    only anomalies detected at or after DATE, local time,\n"
    "                  as YYYY-MM-DD or 'YYYY-MM-DD HH:MM[:SS]'\n"
    "  --limit N       at most N anomalies (default 100)\n";

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

// JSON text must be UTF-8: a name or payload that is not keeps its member,
// with U+FFFD for each byte that is not UTF-8.
json_t* json_text(const std::string& text) { return json_string(text::as_utf8(text).c_str()); }

void print_json_lines(const std::vector<AnomalyRecord>& records) {
  for (const AnomalyRecord& r : records) {
    json_t* line = json_object();
    json_object_set_new(line, "id", json_text(r.id));
    json_object_set_new(line, "client", json_text(r.client));
    json_object_set_new(line, "policy", json_text(r.policy));
    json_object_set_new(line, "detection_time", json_string(local_time_text(r.detection_time).c_str()));
    json_object_set_new(line, "detection_epoch", json_integer(static_cast<json_int_t>(r.detection_time)));
    json_object_set_new(line, "summary", json_text(r.summary));
    json_object_set_new(line, "score", json_text(r.score));
    json_t* payload = json_loads(text::as_utf8(r.payload).c_str(), 0, nullptr);
    json_object_set_new(line, "payload", payload != nullptr ? payload : json_text(r.payload));
    char* text = json_dumps(line, JSON_COMPACT | JSON_PRESERVE_ORDER);
    std::cout << (text != nullptr ? text : "{}") << "\n";
    free(text);
    json_decref(line);
  }
}

}  // namespace

int run_anomalies(int argc, char** argv) {
  CommandArgs args(argc, argv, {{"--json"}, {"--client", "--since", "--limit"}, 1, 1});
  AnomalyStore::Filter filter;
  filter.limit = args.integer("--limit", kDefaultLimit, 1, 1000000000);
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
