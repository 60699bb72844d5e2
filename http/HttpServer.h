// HttpServer: an HTTP(S) server on libmicrohttpd that bounds every connection
// before any request reaches the application: the request head must fit the
// connection's fixed memory (checked while it is read), a whole request must
// arrive within a deadline however slowly it drips, one client address may
// hold only so many connections, and a fixed pool of event-driven threads
// serves them all. A complete request becomes an httplib::Request for the
// handler; its httplib::Response is sent. The server takes the listening
// socket it is given and serves from construction until destruction; the
// constructor throws std::runtime_error when the daemon cannot start.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

struct HttpLimits {
  std::size_t connection_memory = 32 * 1024;  // request head and read buffer
  std::size_t max_uri_bytes = 8 * 1024;
  std::size_t max_body_bytes = 16 * 1024;
  // A larger body is read and dropped up to this size (so the client reads
  // the refusal); beyond it the connection is closed.
  std::size_t max_discarded_body_bytes = 1024 * 1024;
  unsigned connections = 128;
  unsigned connections_per_client = 32;
  unsigned threads = 4;
  std::chrono::seconds request_deadline{10};
  std::chrono::seconds idle_timeout{5};
};

struct HttpHandlers {
  using Handler = std::function<void(httplib::Request&, httplib::Response&)>;
  Handler answer;  // a request as it came
  // A request the server refused on its own (res.status is 413 or 414
  // already); fills in the body.
  Handler refuse;
};

class HttpServer {
 public:
  struct Tls {
    std::string cert_pem, key_pem;
  };
  // listen_fd: a bound, listening socket, closed by the server.
  HttpServer(int listen_fd, const HttpLimits& limits, const std::optional<Tls>& tls, HttpHandlers handlers);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
