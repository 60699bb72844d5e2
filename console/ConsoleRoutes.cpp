// The console's pages, API and metrics, and the handlers of its two
// actions; every request reaches them only through the admission checks.
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "console/AnomalyCsv.h"
#include "console/ConsoleJson.h"
#include "console/ConsolePages.h"
#include "console/ConsoleServerImpl.h"
#include "console/MetricsText.h"
#include "console/StatusMetrics.h"
#include "console/UrlText.h"
#include "console/WhyFlagged.h"
#include "console/WorkloadView.h"
#include "util/TimeUnits.h"

using httplib::Request;
using httplib::Response;
using namespace console_request;
using namespace console_server;

namespace {

// The id the address names by its handle; a handle naming no anomaly stays
// as it is, for the handlers' own not-found answers.
std::string id_in_path(const ConsoleStore& store, const Request& req) {
  const std::string handle = req.matches[1];
  return store.id_of_handle(handle).value_or(handle);
}

}  // namespace

VerdictOutcome ConsoleServer::Impl::apply(const std::string& id, const std::string& action) {
  return action == "false-positive" ? store.report_false_positive(id) : store.acknowledge(id);
}

void ConsoleServer::Impl::verdict_form(const Request& req, Response& res) {
  require_csrf(req);
  const std::string id = id_in_path(store, req);
  const std::string action = req.matches[2];
  const VerdictOutcome outcome = apply(id, action);
  std::string code;
  switch (outcome) {
    case VerdictOutcome::unknown: throw RequestError(404, "There is no anomaly with this id.");
    case VerdictOutcome::recorded: code = action + "-recorded"; break;
    case VerdictOutcome::already: code = action + "-already"; break;
    case VerdictOutcome::conflict: code = "conflict"; break;
    case VerdictOutcome::job_gone: code = "job-gone"; break;
    case VerdictOutcome::foreign_code: code = "foreign-code"; break;
  }
  res.set_redirect(anomaly_path(id) + "?result=" + code, 303);
}

void ConsoleServer::Impl::verdict_api(const Request& req, Response& res) {
  require_csrf(req);
  const std::string id = id_in_path(store, req);
  const VerdictOutcome outcome = apply(id, req.matches[2]);
  switch (outcome) {
    case VerdictOutcome::unknown: throw RequestError(404, "no anomaly '" + id + "'");
    case VerdictOutcome::conflict:
    case VerdictOutcome::job_gone:
    case VerdictOutcome::foreign_code: throw RequestError(409, verdict_refusal(outcome));
    case VerdictOutcome::recorded:
    case VerdictOutcome::already: break;
  }
  const auto detail = store.detail(id, 0);
  res.set_content(console_json::verdict(id, outcome, detail ? detail->state : AnomalyState::open),
                  "application/json");
}

// Every address the console answers, each written once: the server is given
// these routes, and a request that fits none of them by its method is
// answered from the same table (405 with Allow, or 404). The verdict actions
// come before the anomaly pages whose paths they extend, so that such a path
// answers that it takes POST.
const std::vector<ConsoleServer::Impl::Route>& ConsoleServer::Impl::route_table() {
  using enum Route::Method;
  static const std::vector<Route> table = {
      {Get, "/", &Impl::list_page},
      {Get, R"(/console\.css)", &Impl::stylesheet_file},
      {Get, R"(/console\.js)", &Impl::script_file},
      {Post, "/session/proof", &Impl::claim_proof},
      {Post, "/logout", &Impl::sign_out},
      {Get, R"(/anomalies\.csv)", &Impl::csv_export},
      {Get, "/status", &Impl::status_page},
      {Post, "/triage", &Impl::triage_confirm},
      {Post, "/triage/apply", &Impl::triage_apply},
      {Post, "/api/v1/verdicts", &Impl::api_verdicts},
      {Post, R"(/anomalies/(.+)/(false-positive|acknowledge))", &Impl::verdict_form},
      {Get, R"(/anomalies/(.+))", &Impl::anomaly_page},
      {Get, "/workloads", &Impl::workload_page},
      {Get, "/api/v1/anomalies", &Impl::api_anomaly_list},
      {Post, R"(/api/v1/anomalies/(.+)/(false-positive|acknowledge))", &Impl::verdict_api},
      {Get, R"(/api/v1/anomalies/(.+))", &Impl::api_anomaly},
      {Get, "/api/v1/status", &Impl::api_status},
      {Get, "/metrics", &Impl::metrics_page},
  };
  return table;
}

// The first route whose method and path fit takes the request (GET routes
// take HEAD too); a path that fits only by its method is answered below.
void ConsoleServer::Impl::route(Request& req, Response& res) {
  const bool get = req.method == "GET" || req.method == "HEAD";
  for (const Route& route : route_table()) {
    const bool method_fits = route.method == Route::Method::Post ? req.method == "POST" : get;
    if (method_fits && std::regex_match(req.path, req.matches, route.path)) {
      (this->*route.handler)(req, res);
      return;
    }
  }
  method_not_allowed(req, res);
}

// The first route whose path fits names the methods the path takes.
void ConsoleServer::Impl::method_not_allowed(const Request& req, Response& res) {
  for (const Route& route : route_table()) {
    if (std::regex_match(req.path, route.path)) {
      res.set_header("Allow", route.method == Route::Method::Post ? "POST" : "GET, HEAD");
      send_error(req, res, 405, req.method + " is not allowed here");
      return;
    }
  }
  send_error(req, res, 404, "there is nothing at this address");
}

void ConsoleServer::Impl::list_page(const Request& req, Response& res) {
  console_pages::ListView view;
  ListQuery query = list_query(req, view.form);
  view.page = number_param(req, "page", 1, 1, kMaxOffset / kPageSize);
  query.limit = kPageSize + 1;
  query.offset = (view.page - 1) * kPageSize;
  view.rows = store.list(query);
  view.has_more = static_cast<long long>(view.rows.size()) > kPageSize;
  if (view.has_more) view.rows.pop_back();
  view.totals = store.totals(query, std::time(nullptr));
  view.csrf = sessions.csrf_of(cookie(req, kSessionCookie)).value_or("");
  res.set_content(console_pages::list_page(view), "text/html; charset=utf-8");
}

// The filtered list as CSV, kMaxCsvRows rows a file from offset on.
void ConsoleServer::Impl::csv_export(const Request& req, Response& res) {
  console_pages::FilterForm form;
  ListQuery query = list_query(req, form);
  query.limit = number_param(req, "limit", kMaxCsvRows, 1, kMaxCsvRows);
  query.offset = number_param(req, "offset", 0, 0, kMaxOffset);
  res.set_header("Content-Disposition", "attachment; filename=\"anomalies.csv\"");
  res.set_content(anomaly_csv(store.list(query)), "text/csv; charset=utf-8");
}

void ConsoleServer::Impl::stylesheet_file(const Request&, Response& res) {
  res.set_content(console_pages::stylesheet(), "text/css; charset=utf-8");
}

void ConsoleServer::Impl::status_page(const Request&, Response& res) {
  const time_t now = std::time(nullptr);
  res.set_content(console_pages::status_page(status(true), store.per_day(now - 30 * kSecondsPerDay), now),
                  "text/html; charset=utf-8");
}

void ConsoleServer::Impl::anomaly_page(const Request& req, Response& res) {
  const auto detail = store.detail(id_in_path(store, req), kChartDays);
  if (!detail) throw RequestError(404, "There is no anomaly with this id.");
  const auto csrf = sessions.csrf_of(cookie(req, kSessionCookie));
  const WhyFlagged why = why_flagged(config.database, detail->record, detail->history.job_found, replay_settings());
  res.set_content(console_pages::anomaly_page(*detail, why_panel(why, detail->record), csrf.value_or(""),
                                              result_sentence(req.get_param_value("result")), std::time(nullptr)),
                  "text/html; charset=utf-8");
}

void ConsoleServer::Impl::workload_page(const Request& req, Response& res) {
  const std::string id = req.get_param_value("anomaly");
  if (id.empty()) throw RequestError(400, "name the workload by one of its anomalies: /workloads?anomaly=ID");
  const int days = static_cast<int>(number_param(req, "days", kDefaultWorkloadDays, 1, kMaxWorkloadDays));
  const auto view = workload_view(config.database, id, days, replay_settings());
  if (!view) throw RequestError(404, "There is no anomaly with this id, or its job is no longer known.");
  res.set_content(::workload_page(*view), "text/html; charset=utf-8");
}

void ConsoleServer::Impl::api_anomaly_list(const Request& req, Response& res) {
  console_pages::FilterForm form;
  ListQuery query = list_query(req, form);
  query.limit = number_param(req, "limit", kPageSize, 1, kMaxApiLimit);
  query.offset = number_param(req, "offset", 0, 0, kMaxOffset);
  res.set_content(console_json::anomaly_list(store.list(query), store.totals(query, std::time(nullptr)), query),
                  "application/json");
}

void ConsoleServer::Impl::api_anomaly(const Request& req, Response& res) {
  const std::string id = id_in_path(store, req);
  const auto detail = store.detail(id, kChartDays);
  if (!detail) throw RequestError(404, "no anomaly '" + id + "'");
  const WhyFlagged why = why_flagged(config.database, detail->record, detail->history.job_found, replay_settings());
  res.set_content(console_json::anomaly(*detail, why_json(why, detail->record)), "application/json");
}

void ConsoleServer::Impl::api_status(const Request&, Response& res) {
  res.set_content(console_json::status(status(true), store.per_day(std::time(nullptr) - 30 * kSecondsPerDay)),
                  "application/json");
}

void ConsoleServer::Impl::metrics_page(const Request&, Response& res) {
  res.set_content(metrics_text(status_metrics(status())), "text/plain; version=0.0.4; charset=utf-8");
}
