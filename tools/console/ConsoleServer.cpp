#include "tools/console/ConsoleServer.h"

#include <httplib.h>

#include <ctime>
#include <iostream>
#include <regex>
#include <set>
#include <stdexcept>

#include "platform/VisibleText.h"
#include "tools/ErrorText.h"
#include "tools/TimeText.h"
#include "tools/console/AccessToken.h"
#include "tools/console/ConsoleJson.h"
#include "tools/console/ConsolePages.h"
#include "tools/console/ConsoleStore.h"
#include "tools/console/MetricsText.h"
#include "tools/console/StatusMetrics.h"
#include "tools/console/UrlText.h"

using httplib::Request;
using httplib::Response;
using Outcome = httplib::Server::HandlerResponse;

namespace {

constexpr const char* kSessionCookie = "tsanomaly_session";
constexpr const char* kApiPrefix = "/api/";
constexpr long long kPageSize = 50;
constexpr long long kMaxApiLimit = 500;
constexpr long long kMaxOffset = 1000000000;
constexpr int kChartDays = 180;
constexpr std::chrono::seconds kHistoryRecount{60};

// A request the console answers with an error status and a message.
struct RequestError : std::runtime_error {
  RequestError(int status, const std::string& message) : std::runtime_error(message), status(status) {}
  int status;
};

// The reason phrase of the statuses the console sends.
std::string status_title(int status) {
  static const std::pair<int, const char*> kTitles[] = {
      {400, "Bad request"},    {401, "Sign-in needed"},        {403, "Forbidden"},
      {404, "Not found"},      {405, "Method not allowed"},    {409, "Conflict"},
      {413, "Request too large"}, {414, "Address too long"}, {431, "Headers too large"},
      {500, "Internal error"},
  };
  for (const auto& [code, title] : kTitles) {
    if (code == status) return title;
  }
  return "Error " + std::to_string(status);
}

bool is_api(const Request& req) { return req.path.rfind(kApiPrefix, 0) == 0; }

void send_error(const Request& req, Response& res, int status, const std::string& message) {
  res.status = status;
  if (is_api(req) || req.path == "/metrics") {
    res.set_content(console_json::error(status, message), "application/json");
  } else {
    res.set_content(console_pages::message_page(status_title(status), message),
                    "text/html; charset=utf-8");
  }
}

std::string cookie(const Request& req, const std::string& name) {
  const std::string header = req.get_header_value("Cookie");
  std::size_t at = 0;
  while (at < header.size()) {
    const std::size_t end = std::min(header.find(';', at), header.size());
    std::size_t start = header.find_first_not_of(' ', at);
    if (start < end && header.compare(start, name.size() + 1, name + "=") == 0) {
      return header.substr(start + name.size() + 1, end - start - name.size() - 1);
    }
    at = end + 1;
  }
  return "";
}

std::optional<std::string> bearer(const Request& req) {
  const std::string header = req.get_header_value("Authorization");
  if (header.rfind("Bearer ", 0) != 0) return std::nullopt;
  return header.substr(7);
}

// A filter value as sent, bounded in size.
std::string param(const Request& req, const char* name) {
  std::string value = req.get_param_value(name);
  if (value.size() > ConsoleServer::kMaxFilterBytes) {
    throw RequestError(400, std::string(name) + " is longer than " + std::to_string(ConsoleServer::kMaxFilterBytes) +
                                " bytes");
  }
  return value;
}

long long number_param(const Request& req, const char* name, long long fallback, long long min, long long max) {
  const std::string text = param(req, name);
  if (text.empty()) return fallback;
  char* end = nullptr;
  errno = 0;
  const long long n = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || n < min || n > max) {
    throw RequestError(400, std::string(name) + " must be a whole number from " + std::to_string(min) + " to " +
                                std::to_string(max));
  }
  return n;
}

time_t day_param(const std::string& text, const char* name) {
  const auto t = TimeText::parse_local(text);
  if (!t || text.size() != 10) throw RequestError(400, std::string(name) + " must be a date YYYY-MM-DD");
  return *t;
}

// The filter of the list page and of GET /api/v1/anomalies. "to" is a day
// included in the range.
ListQuery list_query(const Request& req, console_pages::FilterForm& form) {
  form = {param(req, "client"), param(req, "policy"), param(req, "from"), param(req, "to"), param(req, "state")};
  ListQuery query;
  query.client = form.client;
  query.policy = form.policy;
  if (!form.from.empty()) query.from = day_param(form.from, "from");
  if (!form.to.empty()) query.to = TimeText::parse_local(form.to + " 23:59:59").value_or(day_param(form.to, "to")) + 1;
  if (!form.state.empty()) {
    query.state = state_by_slug(form.state);
    if (!query.state) throw RequestError(400, "unknown state '" + form.state + "'");
  }
  return query;
}

// Where a sign-in through ?token= lands: the page asked for, spelled anew,
// so no decoded path ("//other.site") can redirect elsewhere.
std::string signed_in_target(const std::string& path) {
  if (path.rfind(kAnomalyPathPrefix, 0) == 0) return anomaly_path(path.substr(kAnomalyPathPrefix.size()));
  return path == "/status" ? "/status" : "/";
}

// What the page says after a verdict form was sent, by the code in its URL.
std::string result_sentence(const std::string& code) {
  static const std::pair<const char*, const char*> kSentences[] = {
      {"false-positive-recorded", "Reported as a false positive. The next detection pass takes the job into the "
                                  "history."},
      {"false-positive-already", "This anomaly was already reported as a false positive; nothing changed."},
      {"acknowledge-recorded", "Acknowledged."},
      {"acknowledge-already", "This anomaly was already acknowledged; nothing changed."},
      {"conflict", "Not changed: the anomaly already has the other verdict."},
      {"job-gone", "Not changed: the job is no longer in the detection queue, so no pass could learn it."},
  };
  for (const auto& [key, sentence] : kSentences) {
    if (code == key) return sentence;
  }
  return "";
}

}  // namespace

struct ConsoleServer::Impl {
  ConsoleConfig config;
  ConsoleStore store;
  HistoryTally history;
  SessionTable sessions;
  std::unique_ptr<httplib::Server> server;
  std::set<std::string> allowed_hosts;
  int bound_port = 0;

  explicit Impl(ConsoleConfig c)
      : config(std::move(c)), store(config.database), history([this] { return store.history_counts(); },
                                                              kHistoryRecount) {}

  StatusFigures status(bool with_unjudgeable = false) const {
    StatusFigures figures = store.status();
    if (with_unjudgeable) {
      ReplaySettings settings;
      settings.config_file = config.config_file;
      figures.unjudgeable = count_unjudgeable_jobs(config.database, settings);
    }
    const HistoryTally::Counts counts = history.latest();
    figures.history_rows = counts.rows;
    figures.workloads = counts.workloads;
    figures.history_counted = counts.taken;
    return figures;
  }

  bool tls() const { return config.tls_cert.has_value(); }
  std::string scheme() const { return tls() ? "https" : "http"; }

  void make_server();
  bool same_origin(const Request& req) const;
  void routes();
  Outcome admit(const Request& req, Response& res);
  bool authorised(const Request& req, Response& res);
  void require_csrf(const Request& req);
  void verdict_form(const Request& req, Response& res);
  void verdict_api(const Request& req, Response& res);
  VerdictOutcome apply(const std::string& id, const std::string& action);
  void method_not_allowed(const Request& req, Response& res);
};

void ConsoleServer::Impl::make_server() {
  if (tls()) {
    server = std::make_unique<httplib::SSLServer>(config.tls_cert->c_str(), config.tls_key->c_str());
    if (!server->is_valid()) throw std::runtime_error("cannot load the TLS certificate or key");
  } else {
    server = std::make_unique<httplib::Server>();
  }
  // SO_REUSEADDR only, for a restart while old connections linger; not the
  // library's default SO_REUSEPORT, which would let a second server bound
  // to the same port take a share of the connections.
  server->set_socket_options([](socket_t sock) {
    const int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server->set_read_timeout(kReadTimeoutSeconds, 0);
  server->set_write_timeout(kReadTimeoutSeconds, 0);
  server->set_keep_alive_timeout(kReadTimeoutSeconds);
  server->set_payload_max_length(kMaxBodyBytes);
  server->set_default_headers({
      {"Content-Security-Policy",
       "default-src 'none'; style-src 'self'; img-src 'self'; form-action 'self'; frame-ancestors 'none'; "
       "base-uri 'none'"},
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "no-referrer"},
      {"X-Frame-Options", "DENY"},
      {"Cache-Control", "no-store"},
  });
  server->set_pre_routing_handler([this](const Request& req, Response& res) { return admit(req, res); });
  server->set_error_handler([](const Request& req, Response& res) {
    if (res.body.empty()) send_error(req, res, res.status, status_title(res.status));
  });
  server->set_exception_handler([](const Request& req, Response& res, std::exception_ptr thrown) {
    try {
      std::rethrow_exception(thrown);
    } catch (const RequestError& e) {
      send_error(req, res, e.status, e.what());
    } catch (const std::exception& e) {
      std::cerr << "tsanomalyctl serve: " << visible_text(req.method + " " + req.path) << ": " << ErrorText::of(e)
                << "\n";
      send_error(req, res, 500, "the request failed; the console's log says why");
    }
  });
  routes();
}

// Whether a state-changing request may come from where it says it does.
// Browsers name the sending page's origin; under Referrer-Policy
// no-referrer they send "null" for the console's own forms, and then the
// fetch metadata must say same-origin. Clients that are not browsers send
// neither and are judged by their token alone.
bool ConsoleServer::Impl::same_origin(const Request& req) const {
  const std::string origin = req.get_header_value("Origin");
  const std::string site = req.get_header_value("Sec-Fetch-Site");
  if (!site.empty() && site != "same-origin" && site != "none") return false;
  if (origin.empty() || origin == scheme() + "://" + req.get_header_value("Host")) return true;
  return origin == "null" && site == "same-origin";
}

// Every request passes here before its handler: size, Host, credentials,
// origin. Answers Unhandled to let the handler run.
Outcome ConsoleServer::Impl::admit(const Request& req, Response& res) {
  std::size_t header_bytes = 0;
  for (const auto& [name, value] : req.headers) header_bytes += name.size() + value.size() + 4;
  if (req.headers.size() > kMaxHeaderCount || header_bytes > kMaxHeaderBytes) {
    send_error(req, res, 431, "the request's headers are too large");
    return Outcome::Handled;
  }
  // A page of another site that rebinds its name to this host would send
  // its own name as Host: on loopback only our own names are served.
  if (config.loopback && allowed_hosts.count(req.get_header_value("Host")) == 0) {
    send_error(req, res, 403, "this console answers only to its own address");
    return Outcome::Handled;
  }
  if (req.method != "GET" && req.method != "HEAD" && !same_origin(req)) {
    send_error(req, res, 403, "requests from another origin are refused");
    return Outcome::Handled;
  }
  return authorised(req, res) ? Outcome::Unhandled : Outcome::Handled;
}

bool ConsoleServer::Impl::authorised(const Request& req, Response& res) {
  if (req.path == "/metrics" && config.loopback) return true;
  if (const auto presented = bearer(req)) {
    if (access_token::equal(*presented, config.token)) return true;
    res.set_header("WWW-Authenticate", "Bearer");
    send_error(req, res, 401, "the token is wrong");
    return false;
  }
  if (is_api(req) || req.path == "/metrics") {
    res.set_header("WWW-Authenticate", "Bearer");
    send_error(req, res, 401, "this needs the header Authorization: Bearer TOKEN");
    return false;
  }
  if (req.has_param("token")) {
    if (!access_token::equal(req.get_param_value("token"), config.token)) {
      send_error(req, res, 401, "The token in this address is wrong. Open the address the console printed when it "
                                "started.");
      return false;
    }
    // The token leaves the address bar at once: the session cookie stands in for it.
    const SessionTable::Opened session = sessions.open();
    res.set_header("Set-Cookie", std::string(kSessionCookie) + "=" + session.id +
                                     "; Path=/; HttpOnly; SameSite=Strict" + (tls() ? "; Secure" : ""));
    res.set_redirect(signed_in_target(req.path), 303);
    return false;
  }
  if (sessions.csrf_of(cookie(req, kSessionCookie))) return true;
  send_error(req, res, 401, "Open the address with ?token= that the console printed when it started.");
  return false;
}

// A form sent with a session cookie must carry that session's token; one
// sent with the Bearer header carries the secret itself.
void ConsoleServer::Impl::require_csrf(const Request& req) {
  if (bearer(req)) return;
  const auto expected = sessions.csrf_of(cookie(req, kSessionCookie));
  if (!expected || !access_token::equal(req.get_param_value("csrf"), *expected)) {
    throw RequestError(403, "the form's CSRF token is missing or does not belong to this session");
  }
}

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
    case VerdictOutcome::conflict: throw RequestError(409, "the anomaly already has the other verdict");
    case VerdictOutcome::job_gone:
      throw RequestError(409, "the job is no longer in the detection queue, so no pass could learn it");
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
    res.set_content(console_pages::status_page(status(true), store.per_day(now - 30 * 86400), now),
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
    res.set_content(console_json::status(status(true), store.per_day(std::time(nullptr) - 30 * 86400)),
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

ConsoleServer::ConsoleServer(ConsoleConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {
  impl_->make_server();
}

ConsoleServer::~ConsoleServer() = default;

int ConsoleServer::bind() {
  Impl& impl = *impl_;
  if (impl.config.port == 0) {
    impl.bound_port = impl.server->bind_to_any_port(impl.config.host);
  } else if (impl.server->bind_to_port(impl.config.host, impl.config.port)) {
    impl.bound_port = impl.config.port;
  } else {
    impl.bound_port = -1;
  }
  if (impl.bound_port <= 0) {
    throw std::runtime_error("cannot listen on " + impl.config.host + ":" + std::to_string(impl.config.port) +
                             " (in use, or not an address of this host)");
  }
  const std::string port = ":" + std::to_string(impl.bound_port);
  const bool v6 = impl.config.host.find(':') != std::string::npos;
  impl.allowed_hosts = {(v6 ? "[" + impl.config.host + "]" : impl.config.host) + port, "localhost" + port,
                        "127.0.0.1" + port, "[::1]" + port};
  return impl.bound_port;
}

bool ConsoleServer::run() { return impl_->server->listen_after_bind(); }

void ConsoleServer::stop() { impl_->server->stop(); }

bool ConsoleServer::running() const { return impl_->server->is_running(); }

std::string ConsoleServer::base_url() const {
  const bool v6 = impl_->config.host.find(':') != std::string::npos;
  return impl_->scheme() + "://" + (v6 ? "[" + impl_->config.host + "]" : impl_->config.host) + ":" +
         std::to_string(impl_->bound_port);
}
