// The console's pages, API and metrics, and the handlers of its two
// actions; every request reaches them only through the admission checks.
#include <ctime>
#include <regex>
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

VerdictOutcome ConsoleServer::Impl::apply(const std::string& id, const std::string& action) {
  return action == "false-positive" ? store.report_false_positive(id) : store.acknowledge(id);
}

void ConsoleServer::Impl::verdict_form(const Request& req, Response& res) {
  require_csrf(req);
  const std::string id = req.matches[1];
  const std::string action = req.matches[2];
  const VerdictOutcome outcome = apply(id, action);
  std::string code;
  switch (outcome) {
    case VerdictOutcome::unknown: throw RequestError(404, "There is no anomaly with this id.");
    case VerdictOutcome::recorded: code = action + "-recorded"; break;
    case VerdictOutcome::already: code = action + "-already"; break;
    case VerdictOutcome::conflict: code = "conflict"; break;
    case VerdictOutcome::job_gone: code = "job-gone"; break;
  }
  res.set_redirect(anomaly_path(id) + "?result=" + code, 303);
}

void ConsoleServer::Impl::verdict_api(const Request& req, Response& res) {
  require_csrf(req);
  const std::string id = req.matches[1];
  const VerdictOutcome outcome = apply(id, req.matches[2]);
  switch (outcome) {
    case VerdictOutcome::unknown: throw RequestError(404, "no anomaly '" + id + "'");
    case VerdictOutcome::conflict:
    case VerdictOutcome::job_gone: throw RequestError(409, verdict_refusal(outcome));
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

namespace {

// A POST's body as its handler reads it, form fields added to the
// parameters. A request that announces no body (neither Content-Length nor
// chunked transfer, as `curl -X POST` sends) has an empty one; the
// library's own reading would refuse it, so these routes read for
// themselves.
Request with_body(const Request& req, const httplib::ContentReader& reader) {
  Request full = req;
  if (!req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) return full;
  const std::string too_large = "the request's body is over " + std::to_string(ConsoleServer::kMaxBodyBytes) + " bytes";
  if (req.get_header_value<uint64_t>("Content-Length") > ConsoleServer::kMaxBodyBytes) throw RequestError(413, too_large);
  const bool read = reader([&](const char* data, std::size_t length) {
    if (full.body.size() + length > ConsoleServer::kMaxBodyBytes) return false;
    full.body.append(data, length);
    return true;
  });
  if (!read) {
    if (full.body.size() >= ConsoleServer::kMaxBodyBytes) throw RequestError(413, too_large);
    throw RequestError(400, "the request's body could not be read whole");
  }
  if (req.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    httplib::detail::parse_query_text(full.body, full.params);
  }
  return full;
}

}  // namespace

void ConsoleServer::Impl::routes() {
  httplib::Server& s = *server;
  for (const Route& route : route_table()) {
    if (route.method == Route::Method::Post) {
      s.Post(route.pattern, [this, handler = route.handler](const Request& req, Response& res,
                                                            const httplib::ContentReader& reader) {
        (this->*handler)(with_body(req, reader), res);
      });
    } else {
      s.Get(route.pattern, [this, handler = route.handler](const Request& req, Response& res) {
        (this->*handler)(req, res);
      });
    }
  }
  const auto refuse = [this](const Request& req, Response& res) { method_not_allowed(req, res); };
  s.Get(".*", refuse);
  s.Post(".*", refuse);
  s.Put(".*", refuse);
  s.Patch(".*", refuse);
  s.Delete(".*", refuse);
  s.Options(".*", refuse);
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
  const auto detail = store.detail(req.matches[1], kChartDays);
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
  const auto detail = store.detail(req.matches[1], kChartDays);
  if (!detail) throw RequestError(404, "no anomaly '" + std::string(req.matches[1]) + "'");
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
