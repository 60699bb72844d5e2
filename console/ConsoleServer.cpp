#include "console/ConsoleServer.h"

#include <httplib.h>

#include <iostream>
#include <stdexcept>

#include "platform/VisibleText.h"
#include "operator/ErrorText.h"
#include "console/AccessToken.h"
#include "console/ConsoleServerImpl.h"
#include "console/UrlText.h"

using httplib::Request;
using httplib::Response;
using Outcome = httplib::Server::HandlerResponse;
using namespace console_request;
using namespace console_server;

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
    res.set_redirect(signed_in_target(req), 303);
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
