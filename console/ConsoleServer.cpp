#include "console/ConsoleServer.h"

#include <httplib.h>

#include <iostream>
#include <stdexcept>

#include "platform/VisibleText.h"
#include "operator/ErrorText.h"
#include "console/AccessToken.h"
#include "console/ConsoleServerImpl.h"
#include "http/ListenSocket.h"
#include "http/TlsFiles.h"
#include "console/UrlText.h"

using httplib::Request;
using httplib::Response;
using namespace console_request;
using namespace console_server;

namespace {

const std::pair<const char*, const char*> kSecurityHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; connect-src 'self'; style-src 'self'; img-src 'self'; "
     "form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Frame-Options", "DENY"},
    {"Cache-Control", "no-store"},
};

void add_security_headers(Response& res) {
  for (const auto& [name, value] : kSecurityHeaders) {
    if (!res.has_header(name)) res.set_header(name, value);
  }
}

HttpLimits console_limits() {
  HttpLimits limits;
  limits.max_body_bytes = ConsoleServer::kMaxBodyBytes;
  limits.idle_timeout = std::chrono::seconds(ConsoleServer::kReadTimeoutSeconds);
  limits.request_deadline = std::chrono::seconds(ConsoleServer::kRequestDeadlineSeconds);
  return limits;
}

}  // namespace

void ConsoleServer::Impl::load_tls() {
  if (!tls()) return;
  tls_files::Pem pem = tls_files::load(*config.tls_cert, *config.tls_key);
  tls_pem = HttpServer::Tls{std::move(pem.cert), std::move(pem.key)};
}

HttpHandlers ConsoleServer::Impl::handlers() {
  return HttpHandlers{
      [this](Request& req, Response& res) { answer(req, res); },
      [](Request& req, Response& res) {
        send_error(req, res, res.status, status_title(res.status));
        add_security_headers(res);
      },
  };
}

// Admission, then the route; what a handler throws becomes an error page.
void ConsoleServer::Impl::answer(Request& req, Response& res) {
  try {
    if (admit(req, res)) route(req, res);
  } catch (const RequestError& e) {
    send_error(req, res, e.status, e.what());
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl serve: " << visible_text(req.method + " " + req.path) << ": " << ErrorText::of(e)
              << "\n";
    send_error(req, res, 500, "the request failed; the console's log says why");
  }
  if (res.status < 0) res.status = 200;
  // A handler that only set an error status still answers with a page or JSON.
  if (res.status >= 400 && res.body.empty()) send_error(req, res, res.status, status_title(res.status));
  add_security_headers(res);
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
// origin. True lets the handler run; false means res holds the refusal.
bool ConsoleServer::Impl::admit(const Request& req, Response& res) {
  std::size_t header_bytes = 0;
  for (const auto& [name, value] : req.headers) header_bytes += name.size() + value.size() + 4;
  if (req.headers.size() > kMaxHeaderCount || header_bytes > kMaxHeaderBytes) {
    send_error(req, res, 431, "the request's headers are too large");
    return false;
  }
  // A page of another site that rebinds its name to this host would send
  // its own name as Host: on loopback only our own names are served.
  if (config.loopback && allowed_hosts.count(req.get_header_value("Host")) == 0) {
    send_error(req, res, 403, "this console answers only to its own address");
    return false;
  }
  if (req.method != "GET" && req.method != "HEAD" && !same_origin(req)) {
    send_error(req, res, 403, "requests from another origin are refused");
    return false;
  }
  return authorised(req, res);
}

bool ConsoleServer::Impl::authorised(const Request& req, Response& res) {
  const TokenWatch::Look token = token_watch.look();
  if (token.changed) sessions.end_all();
  if (req.path == "/metrics" && config.loopback) return true;
  if (const auto presented = bearer(req)) {
    if (token.token && access_token::equal(*presented, *token.token)) return true;
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
    sign_in(req, res, token.token);
    return false;
  }
  if (sessions.csrf_of(cookie(req, kSessionCookie))) return true;
  send_error(req, res, 401, "Open the address with ?token= that the console printed when it started.");
  return false;
}

// A form sent with a session cookie must carry that session's CSRF token and
// the proof its page claimed, in the body or a header, never in the address,
// which browsers keep in their history and servers in their logs. One sent
// with the Bearer header carries the secret itself.
void ConsoleServer::Impl::require_csrf(const Request& req) {
  if (bearer(req)) return;
  const std::string id = cookie(req, kSessionCookie);
  const auto expected = sessions.csrf_of(id);
  if (!expected || !access_token::equal(sent_secret(req, "csrf", "X-CSRF-Token"), *expected)) {
    throw RequestError(403, "the form's CSRF token is missing or does not belong to this session");
  }
  if (!sessions.proven(id, sent_secret(req, "proof", "X-Session-Proof"))) {
    throw RequestError(403, "This page could not prove it belongs to the browser that signed in (it needs "
                            "JavaScript). Open the token address again to sign in.");
  }
}

ConsoleServer::ConsoleServer(ConsoleConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {
  impl_->load_tls();
}

ConsoleServer::~ConsoleServer() = default;

int ConsoleServer::bind() {
  Impl& impl = *impl_;
  const ListenAddress wanted{impl.config.host, impl.config.port, impl.config.loopback};
  const int fd = impl.config.listen_fd >= 0 ? impl.config.listen_fd : listen_socket::open(wanted);
  impl.bound_port = listen_socket::address_of(fd).port;
  // Settled before the first connection is taken: handlers read them unlocked.
  const std::string port = ":" + std::to_string(impl.bound_port);
  const bool v6 = impl.config.host.find(':') != std::string::npos;
  impl.allowed_hosts = {(v6 ? "[" + impl.config.host + "]" : impl.config.host) + port, "localhost" + port,
                        "127.0.0.1" + port, "[::1]" + port};
  impl.server = std::make_unique<HttpServer>(fd, console_limits(), impl.tls_pem, impl.handlers());
  impl.serving = true;
  return impl.bound_port;
}

bool ConsoleServer::run() {
  Impl& impl = *impl_;
  if (!impl.server) return false;
  std::unique_lock<std::mutex> lock(impl.stop_mutex);
  impl.stop_asked.wait(lock, [&impl] { return impl.stopping; });
  impl.server.reset();
  return true;
}

void ConsoleServer::stop() {
  Impl& impl = *impl_;
  if (!impl.serving.exchange(false)) return;
  {
    std::lock_guard<std::mutex> lock(impl.stop_mutex);
    impl.stopping = true;
  }
  impl.stop_asked.notify_all();
}

bool ConsoleServer::running() const { return impl_->serving; }

std::string ConsoleServer::base_url() const {
  const bool v6 = impl_->config.host.find(':') != std::string::npos;
  return impl_->scheme() + "://" + (v6 ? "[" + impl_->config.host + "]" : impl_->config.host) + ":" +
         std::to_string(impl_->bound_port);
}
