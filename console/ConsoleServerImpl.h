// ConsoleServer::Impl: the console's server state, shared by its units:
// ConsoleServer.cpp (the server, its admission checks, binding),
// ConsoleRoutes.cpp (the pages, the API and their handlers) and
// ConsoleSession.cpp (signing in and out). Private to them.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "replay/UnjudgeableJobs.h"
#include "console/ConsoleRequest.h"
#include "console/ConsoleServer.h"
#include "console/ConsoleStore.h"
#include "console/HistoryTally.h"
#include "http/HttpServer.h"
#include "console/SessionTable.h"
#include "console/TokenWatch.h"

namespace console_server {

constexpr const char* kSessionCookie = "tsanomaly_session";
constexpr long long kPageSize = 50;
constexpr long long kMaxApiLimit = 500;
constexpr long long kMaxOffset = 1000000000;
constexpr int kChartDays = 180;
constexpr long long kMaxCsvRows = 10000;
constexpr long long kMaxWorkloadDays = 3650;
constexpr std::chrono::seconds kHistoryRecount{60};

}  // namespace console_server

struct ConsoleServer::Impl {
  ConsoleConfig config;
  ConsoleStore store;
  HistoryTally history;
  SessionTable sessions;
  TokenWatch token_watch;
  std::optional<HttpServer::Tls> tls_pem;
  std::unique_ptr<HttpServer> server;
  std::set<std::string> allowed_hosts;
  int bound_port = 0;
  std::mutex stop_mutex;
  std::condition_variable stop_asked;
  bool stopping = false;
  std::atomic<bool> serving{false};

  explicit Impl(ConsoleConfig c)
      : config(std::move(c)),
        store(config.database),
        history([this] { return store.history_counts(); }, console_server::kHistoryRecount),
        token_watch(config.token_file, config.token) {}

  // The detector's configuration, for replays of its pass.
  ReplaySettings replay_settings() const {
    ReplaySettings settings;
    settings.config_file = config.config_file;
    return settings;
  }

  StatusFigures status(bool with_unjudgeable = false) const {
    StatusFigures figures = store.status();
    if (with_unjudgeable) figures.unjudgeable = count_unjudgeable_jobs(config.database, replay_settings());
    const HistoryTally::Counts counts = history.latest();
    figures.history_rows = counts.rows;
    figures.workloads = counts.workloads;
    figures.history_counted = counts.taken;
    return figures;
  }

  bool tls() const { return config.tls_cert.has_value(); }
  std::string scheme() const { return tls() ? "https" : "http"; }

  // One address the console answers: its method, its path as a pattern
  // (the groups become req.matches) and the handler.
  struct Route {
    enum class Method { Get, Post };
    using Handler = void (Impl::*)(const httplib::Request&, httplib::Response&);
    Route(Method m, const char* pattern, Handler h) : method(m), path(pattern), handler(h) {}
    Method method;
    std::regex path;  // compiled once, when the table is first used
    Handler handler;
  };
  static const std::vector<Route>& route_table();

  void load_tls();
  HttpHandlers handlers();
  void answer(httplib::Request& req, httplib::Response& res);
  bool same_origin(const httplib::Request& req) const;
  void route(httplib::Request& req, httplib::Response& res);
  bool admit(const httplib::Request& req, httplib::Response& res);
  bool authorised(const httplib::Request& req, httplib::Response& res);
  void sign_in(const httplib::Request& req, httplib::Response& res, const std::optional<std::string>& token);
  void script_file(const httplib::Request& req, httplib::Response& res);
  void claim_proof(const httplib::Request& req, httplib::Response& res);
  void sign_out(const httplib::Request& req, httplib::Response& res);
  void require_csrf(const httplib::Request& req);
  void verdict_form(const httplib::Request& req, httplib::Response& res);
  void verdict_api(const httplib::Request& req, httplib::Response& res);
  VerdictOutcome apply(const std::string& id, const std::string& action);
  void method_not_allowed(const httplib::Request& req, httplib::Response& res);
  void list_page(const httplib::Request& req, httplib::Response& res);
  void stylesheet_file(const httplib::Request& req, httplib::Response& res);
  void status_page(const httplib::Request& req, httplib::Response& res);
  void anomaly_page(const httplib::Request& req, httplib::Response& res);
  void api_anomaly_list(const httplib::Request& req, httplib::Response& res);
  void api_anomaly(const httplib::Request& req, httplib::Response& res);
  void api_status(const httplib::Request& req, httplib::Response& res);
  void metrics_page(const httplib::Request& req, httplib::Response& res);
  void triage_confirm(const httplib::Request& req, httplib::Response& res);
  void triage_apply(const httplib::Request& req, httplib::Response& res);
  void api_verdicts(const httplib::Request& req, httplib::Response& res);
  void csv_export(const httplib::Request& req, httplib::Response& res);
  void workload_page(const httplib::Request& req, httplib::Response& res);
};
