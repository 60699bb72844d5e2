// The console's pages, API and metrics, and the handlers of its two
// actions; every request reaches them only through the admission checks.
#include <ctime>
#include <regex>

#include "console/ConsoleJson.h"
#include "console/ConsolePages.h"
#include "console/ConsoleServerImpl.h"
#include "console/MetricsText.h"
#include "console/StatusMetrics.h"
#include "console/UrlText.h"
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

void ConsoleServer::Impl::method_not_allowed(const Request& req, Response& res) {
  static const std::regex kPostPaths(R"(/(api/v1/)?anomalies/.+/(false-positive|acknowledge))");
  static const std::regex kGetPaths(R"(/|/console\.css|/status|/metrics|/anomalies/.+|/api/v1/(status|anomalies(/.+)?))");
  if (std::regex_match(req.path, kPostPaths) && req.method != "POST") {
    res.set_header("Allow", "POST");
  } else if (std::regex_match(req.path, kGetPaths)) {
    res.set_header("Allow", "GET, HEAD");
  } else {
    send_error(req, res, 404, "there is nothing at this address");
    return;
  }
  send_error(req, res, 405, req.method + " is not allowed here");
}

void ConsoleServer::Impl::routes() {
  httplib::Server& s = *server;
  s.Get("/", [this](const Request& req, Response& res) {
    console_pages::ListView view;
    ListQuery query = list_query(req, view.form);
    view.page = number_param(req, "page", 1, 1, kMaxOffset / kPageSize);
    query.limit = kPageSize + 1;
    query.offset = (view.page - 1) * kPageSize;
    view.rows = store.list(query);
    view.has_more = static_cast<long long>(view.rows.size()) > kPageSize;
    if (view.has_more) view.rows.pop_back();
    view.totals = store.totals(query, std::time(nullptr));
    res.set_content(console_pages::list_page(view), "text/html; charset=utf-8");
  });
  s.Get("/console.css", [](const Request&, Response& res) {
    res.set_content(console_pages::stylesheet(), "text/css; charset=utf-8");
  });
  s.Get("/status", [this](const Request&, Response& res) {
    const time_t now = std::time(nullptr);
    res.set_content(console_pages::status_page(status(true), store.per_day(now - 30 * kSecondsPerDay), now),
                    "text/html; charset=utf-8");
  });
  s.Post(R"(/anomalies/(.+)/(false-positive|acknowledge))",
         [this](const Request& req, Response& res) { verdict_form(req, res); });
  s.Get(R"(/anomalies/(.+))", [this](const Request& req, Response& res) {
    const auto detail = store.detail(req.matches[1], kChartDays);
    if (!detail) throw RequestError(404, "There is no anomaly with this id.");
    const auto csrf = sessions.csrf_of(cookie(req, kSessionCookie));
    res.set_content(console_pages::anomaly_page(*detail, csrf.value_or(""),
                                                result_sentence(req.get_param_value("result")), std::time(nullptr)),
                    "text/html; charset=utf-8");
  });
  s.Get("/api/v1/anomalies", [this](const Request& req, Response& res) {
    console_pages::FilterForm form;
    ListQuery query = list_query(req, form);
    query.limit = number_param(req, "limit", kPageSize, 1, kMaxApiLimit);
    query.offset = number_param(req, "offset", 0, 0, kMaxOffset);
    res.set_content(console_json::anomaly_list(store.list(query), store.totals(query, std::time(nullptr)), query),
                    "application/json");
  });
  s.Get(R"(/api/v1/anomalies/(.+))", [this](const Request& req, Response& res) {
    const auto detail = store.detail(req.matches[1], kChartDays);
    if (!detail) throw RequestError(404, "no anomaly '" + std::string(req.matches[1]) + "'");
    res.set_content(console_json::anomaly(*detail), "application/json");
  });
  s.Post(R"(/api/v1/anomalies/(.+)/(false-positive|acknowledge))",
         [this](const Request& req, Response& res) { verdict_api(req, res); });
  s.Get("/api/v1/status", [this](const Request&, Response& res) {
    res.set_content(console_json::status(status(true), store.per_day(std::time(nullptr) - 30 * kSecondsPerDay)),
                    "application/json");
  });
  s.Get("/metrics", [this](const Request&, Response& res) {
    res.set_content(metrics_text(status_metrics(status())), "text/plain; version=0.0.4; charset=utf-8");
  });
  const auto refuse = [this](const Request& req, Response& res) { method_not_allowed(req, res); };
  s.Get(".*", refuse);
  s.Post(".*", refuse);
  s.Put(".*", refuse);
  s.Patch(".*", refuse);
  s.Delete(".*", refuse);
  s.Options(".*", refuse);
}
