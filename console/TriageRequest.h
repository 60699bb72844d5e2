// TriageRequest: one verdict for many anomalies, as the list's triage forms
// and POST /api/v1/verdicts send it: the anomalies named one by one (id=,
// repeated; page_id= for the list's whole page) or everything a list filter matches (scope=filter with the
// list's filter fields), the verdict and the operator's reason. Malformed
// input throws console_request::RequestError (400) saying what is wrong.
#pragma once

#include <httplib.h>

#include <optional>
#include <string>
#include <vector>

#include "console/ConsolePages.h"
#include "console/ConsoleStore.h"
#include "operator/Verdict.h"

// At most this many anomalies take one verdict at once.
inline constexpr long long kMaxTriage = 10000;

struct TriageRequest {
  bool whole_filter = false;     // scope=filter: every anomaly the filter matches
  std::vector<std::string> ids;  // otherwise the anomalies named
  ListQuery filter;
  console_pages::FilterForm form;
  std::optional<Verdict> verdict;  // none until the operator chose one
  std::string reason;
};

// verdict_needed: a missing verdict is an error (the API, the confirmed form).
TriageRequest triage_request(const httplib::Request& req, bool verdict_needed);

// The ids the request selects: those named, or the filter's matches.
// Throws RequestError (400) when the filter matches more than kMaxTriage.
std::vector<std::string> triage_ids(const TriageRequest& triage, const ConsoleStore& store);

// What a verdict did to one anomaly, as JSON names it ("recorded",
// "already", "unknown", "conflict", "job-gone") and in words.
const char* outcome_slug(VerdictOutcome outcome);
std::string outcome_sentence(VerdictOutcome outcome);
