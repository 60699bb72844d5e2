// ConsoleServer: the operator console's HTTP(S) server: pages, the JSON API
// under /api/v1/ and /metrics, behind an HttpServer that bounds every
// connection before a request is read whole. It owns the
// checks every request passes first (header size, Host, token or session,
// Origin, CSRF) and the security headers every response carries. Reads and
// writes go through ConsoleStore, afresh for every request but the history's
// two counts, which a HistoryTally keeps.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "console/SessionTable.h"

struct ConsoleConfig {
  std::string database;
  std::string host = "127.0.0.1";  // an IP address
  int port = 8470;                 // 0: any free port
  bool loopback = true;            // host is a loopback address
  std::string token;
  std::string token_file;  // watched: a changed token ends every session (empty: token is fixed)
  std::optional<std::string> tls_cert, tls_key;
  std::string config_file;  // the detector's INI, for the jobs it cannot judge
  int listen_fd = -1;       // a listening socket to serve (systemd's), instead of host:port
};

class ConsoleServer {
 public:
  // Throws std::runtime_error when the database or the TLS files are unusable.
  explicit ConsoleServer(ConsoleConfig config);
  ~ConsoleServer();
  ConsoleServer(const ConsoleServer&) = delete;
  ConsoleServer& operator=(const ConsoleServer&) = delete;

  // Binds the listening socket (or takes listen_fd) and begins to serve;
  // throws std::runtime_error when it cannot. Returns the port bound (the
  // one asked for, or the one chosen for 0).
  int bind();
  // Waits until stop(), then stops serving; returns false when the server
  // never started.
  bool run();
  // From any thread, a signal waiter included. Stops only a server that
  // is running (see running()).
  void stop();
  // Whether the server serves and has not been asked to stop.
  bool running() const;

  // "http://127.0.0.1:8470" (no trailing slash).
  std::string base_url() const;

  // Limits of what a client may send.
  static constexpr std::size_t kMaxBodyBytes = 16 * 1024;
  static constexpr std::size_t kMaxHeaderBytes = 16 * 1024;
  static constexpr std::size_t kMaxHeaderCount = 64;
  static constexpr int kReadTimeoutSeconds = 5;
  // A whole request (head and body) must arrive within this, however it
  // trickles in.
  static constexpr int kRequestDeadlineSeconds = 10;
  static constexpr std::size_t kMaxFilterBytes = 256;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
