// ConsoleJson: the JSON documents of the console's API under /api/v1/. All
// text is UTF-8 (bytes that are not become U+FFFD) and escaped by the JSON
// writer, so a hostile name stays one string value.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "console/ConsoleStore.h"
#include "util/Json.h"

namespace console_json {

std::string anomaly_list(const std::vector<ListedAnomaly>& rows, const ListTotals& totals, const ListQuery& query);
// With the parsed payload and, per feature out of range, the chart's data:
// the workload's history and the job in the stored unit, and the usual range.
// why: the member "why" (see WhyFlagged).
std::string anomaly(const AnomalyDetail& detail, Json why);
std::string status(const StatusFigures& figures, const std::vector<std::pair<std::string, long long>>& per_day);
std::string verdict(const std::string& id, VerdictOutcome outcome, AnomalyState state);
// A verdict given to many: per anomaly, in the order asked, what it did.
std::string triage(Verdict verdict, const std::vector<std::string>& ids, const std::vector<VerdictOutcome>& outcomes);
std::string error(int status, const std::string& message);

}  // namespace console_json
