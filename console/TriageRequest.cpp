#include "console/TriageRequest.h"

#include "console/ConsoleRequest.h"

using console_request::RequestError;

namespace {

std::optional<Verdict> verdict_named(const std::string& slug) {
  for (const Verdict verdict : {Verdict::false_positive, Verdict::acknowledged}) {
    if (slug == verdict_slug(verdict)) return verdict;
  }
  return std::nullopt;
}

// Each value of the parameter (id=, or page_id= for the list's own page),
// in order, none empty.
std::vector<std::string> named_ids(const httplib::Request& req, const char* name) {
  const std::size_t count = req.get_param_value_count(name);
  if (count > static_cast<std::size_t>(kMaxTriage)) {
    throw RequestError(400, "at most " + std::to_string(kMaxTriage) + " ids at once");
  }
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < count; ++i) {
    std::string id = req.get_param_value(name, i);
    if (id.empty()) throw RequestError(400, "an id= is empty");
    ids.push_back(std::move(id));
  }
  return ids;
}

}  // namespace

TriageRequest triage_request(const httplib::Request& req, bool verdict_needed) {
  TriageRequest triage;
  const std::string scope = req.get_param_value("scope");
  if (scope != "filter" && scope != "ids" && scope != "page" && !scope.empty()) {
    throw RequestError(400, "scope must be 'ids' (the anomalies named by id=) or 'filter' (everything the filter "
                            "matches)");
  }
  triage.whole_filter = scope == "filter";
  triage.filter = console_request::list_query(req, triage.form);
  if (!triage.whole_filter) {
    triage.ids = named_ids(req, scope == "page" ? "page_id" : "id");
    if (triage.ids.empty()) throw RequestError(400, "no anomaly chosen: name them with id=, or send scope=filter");
  }
  const std::string verdict = req.get_param_value("verdict");
  triage.verdict = verdict_named(verdict);
  if (!triage.verdict && (verdict_needed || !verdict.empty())) {
    throw RequestError(400, "verdict must be 'acknowledge' or 'false-positive'");
  }
  triage.reason = req.get_param_value("reason");
  if (triage.reason.size() > kMaxReasonBytes) {
    throw RequestError(400, "reason is longer than " + std::to_string(kMaxReasonBytes) + " bytes");
  }
  return triage;
}

std::vector<std::string> triage_ids(const TriageRequest& triage, const ConsoleStore& store) {
  if (!triage.whole_filter) return triage.ids;
  std::vector<std::string> ids = store.ids(triage.filter, kMaxTriage + 1);
  if (static_cast<long long>(ids.size()) > kMaxTriage) {
    throw RequestError(400, "the filter matches more than " + std::to_string(kMaxTriage) +
                                " anomalies; narrow it (by state, dates or client) and give the verdict in parts");
  }
  return ids;
}

const char* outcome_slug(VerdictOutcome outcome) {
  switch (outcome) {
    case VerdictOutcome::recorded: return "recorded";
    case VerdictOutcome::already: return "already";
    case VerdictOutcome::unknown: return "unknown";
    case VerdictOutcome::conflict: return "conflict";
    case VerdictOutcome::job_gone: return "job-gone";
    case VerdictOutcome::foreign_code: return "foreign-code";
  }
  return "unknown";
}

std::string outcome_sentence(VerdictOutcome outcome) {
  switch (outcome) {
    case VerdictOutcome::recorded: return "recorded";
    case VerdictOutcome::already: return "it already had this verdict; nothing changed";
    case VerdictOutcome::unknown: return "there is no anomaly with this id";
    case VerdictOutcome::conflict:
    case VerdictOutcome::job_gone:
    case VerdictOutcome::foreign_code: return "refused: " + verdict_refusal(outcome);
  }
  return "";
}
