#include "cli/ServeCommand.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <ctime>
#include <optional>
#include <iostream>
#include <string>
#include <thread>

#include "platform/VisibleText.h"
#include "cli/CommandArgs.h"
#include "operator/DatabaseFiles.h"
#include "operator/ErrorText.h"
#include "console/AccessToken.h"
#include "console/ConsoleServer.h"
#include "http/ListenAddress.h"
#include "http/ListenSocket.h"

const CommandArgs::Syntax kServeSyntax{
    {{.name = "--listen",
      .value_name = "ADDR:PORT",
      .help = "where to listen (default 127.0.0.1:8470; port 0 picks a\nfree one). An address other than loopback needs\n"
              "--token-file."},
     {.name = "--token-file",
      .value_name = "FILE",
      .help = "the token, in a file only its owner may read; created\nwith a random token when missing (default: "
              "DB.console-token)"},
     {.name = "--tls-cert", .value_name = "FILE", .help = "serve HTTPS with this certificate (PEM) ..."},
     {.name = "--tls-key", .value_name = "FILE", .help = "... and this private key"},
     {.name = "-config_file",
      .value_name = "INI",
      .help = "the detector's configuration, with which the status page\ncounts the pending jobs the next pass cannot "
              "judge\n(default: the built-in settings)"}},
    1,
    1,
    {"DB"}};

const std::string kServeHelp =
    "usage: tsanomalyctl serve DB [--listen ADDR:PORT] [--token-file FILE]\n"
    "                             [--tls-cert FILE --tls-key FILE] [-config_file INI]\n"
    "\n"
    "Serves the operator console for the detector database DB: the anomalies,\n"
    "newest first, with filters; one anomaly with its charts and the actions\n"
    "'Report as false positive' and 'Acknowledge'; the detector's status; a JSON\n"
    "API under /api/v1/ and Prometheus metrics at /metrics.\n"
    "\n"
    "Every request but /metrics on a loopback address needs the token from the\n"
    "token file: the header 'Authorization: Bearer TOKEN' for the API, or, in a\n"
    "browser, the address printed at start-up with the token added\n"
    "('.../?token=TOKEN'), which opens a session. The token is never printed.\n"
    "A session ends on 'Sign out', after 30 minutes unused, 8 hours after\n"
    "sign-in, or when the token file changes. Under systemd socket activation\n"
    "the console serves the socket it is given instead of --listen.\n"
    "\n" +
    options_help(kServeSyntax.options) +
    "\n"
    "SIGTERM or SIGINT stops the server; it exits with status 0.\n";

namespace {

int usage_error(const std::string& message) { return CommandArgs::usage_error("serve", message); }

// SIGTERM and SIGINT, blocked in every thread (threads inherit the mask,
// so block them before the first one starts) and taken synchronously by
// StopOnSignal: no handler ever runs inside the server's code.
sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

class StopOnSignal {
 public:
  explicit StopOnSignal(ConsoleServer& server) {
    waiter_ = std::thread([this, &server] {
      const sigset_t signals = stop_signals();
      const timespec tick{0, 200 * 1000 * 1000};
      while (!done_) {
        if (sigtimedwait(&signals, nullptr, &tick) > 0) break;
      }
      // A stop asked for before the server has begun to accept would be
      // lost (it only stops a running server): wait until it runs.
      const timespec moment{0, 10 * 1000 * 1000};
      while (!done_) {
        if (server.running()) {
          server.stop();
          return;
        }
        nanosleep(&moment, nullptr);
      }
    });
  }
  ~StopOnSignal() {
    done_ = true;
    waiter_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread waiter_;
};

// A socket systemd passed replaces --listen: the console serves the address
// the socket unit names, and the port stays held while it restarts.
void take_inherited_socket(ConsoleConfig& config) {
  const auto fd = listen_socket::inherited();
  if (!fd) return;
  const ListenAddress address = listen_socket::address_of(*fd);
  config.listen_fd = *fd;
  config.host = address.host;
  config.port = address.port;
  config.loopback = address.loopback;
}

// The token stays in its file: standard output goes to terminals and
// journals that others may read.
int serve(ConsoleConfig config, const std::string& token_file) {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const access_token::Loaded token = access_token::load_or_create(token_file);
  if (token.created) std::cout << "Created the token file " << visible_text(token_file) << " (mode 0600).\n";
  config.token = token.token;
  config.token_file = token_file;
  ConsoleServer server(std::move(config));
  server.bind();
  StopOnSignal stopper(server);
  std::cout << "Console listening on " << server.base_url() << "/\n"
            << "Open " << server.base_url() << "/?token=TOKEN, with TOKEN the content of "
            << visible_text(token_file) << ", to sign in.\n"
            << std::flush;
  const bool ok = server.run();
  std::cout << "Console stopped.\n";
  return ok ? 0 : 1;
}

}  // namespace

int run_serve(int argc, char** argv) {
  CommandArgs args(argc, argv, kServeSyntax);
  if (auto exit_code = args.help_or_usage_error("serve", kServeHelp)) return *exit_code;
  ConsoleConfig config;
  config.database = args.positional()[0];
  const std::string listen = args.value("--listen").value_or("127.0.0.1:8470");
  const auto address = parse_listen_address(listen);
  if (!address) return usage_error("--listen takes ADDR:PORT with an IP address, not '" + listen + "'");
  config.host = address->host;
  config.port = address->port;
  config.loopback = address->loopback;
  try {
    take_inherited_socket(config);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl serve: " << ErrorText::of(e) << "\n";
    return 1;
  }
  const auto token_file = args.value("--token-file");
  if (!config.loopback && !token_file) {
    return usage_error("refusing to listen on " + listen +
                       ", which is not a loopback address, without --token-file: its clients need a token the "
                       "operator chose the file of");
  }
  config.tls_cert = args.value("--tls-cert");
  config.tls_key = args.value("--tls-key");
  config.config_file = args.value("-config_file").value_or("");
  if (config.tls_cert.has_value() != config.tls_key.has_value()) {
    return usage_error("--tls-cert and --tls-key go together");
  }
  if (const auto suffix = token_file ? database_files::named_by(config.database, *token_file) : std::nullopt) {
    return usage_error(database_files::refusal("--token-file", *suffix));
  }
  try {
    return serve(std::move(config), token_file.value_or(args.positional()[0] + ".console-token"));
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl serve: " << ErrorText::of(e) << "\n";
    return 1;
  }
}
