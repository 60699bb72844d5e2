// The console's handlers of one verdict for many anomalies: the list's
// triage form, its confirmation, and POST /api/v1/verdicts. Each anomaly
// takes the verdict through the one verdict path (give_verdicts), so the
// rules of a single verdict hold for every one of them.
#include "console/ConsoleJson.h"
#include "console/ConsoleServerImpl.h"
#include "console/TriagePages.h"
#include "console/TriageRequest.h"

using httplib::Request;
using httplib::Response;
using namespace console_request;
using namespace console_server;

// Counts what the form chose; changes nothing.
void ConsoleServer::Impl::triage_confirm(const Request& req, Response& res) {
  require_csrf(req);
  const TriageRequest triage = triage_request(req, false);
  const std::vector<std::string> ids = triage_ids(triage, store);
  const auto csrf = sessions.csrf_of(cookie(req, kSessionCookie));
  res.set_content(console_pages::triage_confirm_page(triage, ids, csrf.value_or("")), "text/html; charset=utf-8");
}

void ConsoleServer::Impl::triage_apply(const Request& req, Response& res) {
  require_csrf(req);
  const TriageRequest triage = triage_request(req, true);
  const std::vector<std::string> ids = triage_ids(triage, store);
  const std::vector<VerdictOutcome> outcomes = store.give(ids, *triage.verdict, triage.reason);
  res.set_content(console_pages::triage_result_page(*triage.verdict, ids, outcomes), "text/html; charset=utf-8");
}

void ConsoleServer::Impl::api_verdicts(const Request& req, Response& res) {
  require_csrf(req);
  const TriageRequest triage = triage_request(req, true);
  const std::vector<std::string> ids = triage_ids(triage, store);
  const std::vector<VerdictOutcome> outcomes = store.give(ids, *triage.verdict, triage.reason);
  res.set_content(console_json::triage(*triage.verdict, ids, outcomes), "application/json");
}
