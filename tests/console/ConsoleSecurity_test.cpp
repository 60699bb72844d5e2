// The console's defences, over real sockets against the built tsanomalyctl:
// tokens, sessions, CSRF, foreign origins and Hosts, bounded requests, odd
// methods, slow clients, the token file, start-up refusals, TLS and the
// security headers on every response.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/console/ConsoleFixture.h"

using tsanomaly_test::TempDir;

namespace {

constexpr const char* kFeedbackRows = "SELECT COUNT(*) AS N FROM ANOMALY_DATA_FEEDBACK";

void expect_security_headers(const httplib::Result& res) {
  ASSERT_TRUE(res);
  const std::string csp = res->get_header_value("Content-Security-Policy");
  EXPECT_NE(csp.find("default-src 'none'"), std::string::npos) << csp;
  EXPECT_EQ(csp.find("unsafe-inline"), std::string::npos) << csp;
  EXPECT_EQ(res->get_header_value("X-Content-Type-Options"), "nosniff");
  EXPECT_EQ(res->get_header_value("Referrer-Policy"), "no-referrer");
}

}  // namespace

using ConsoleSecurityTest = ConsoleFixture;

TEST_F(ConsoleSecurityTest, ApiNeedsTheBearerToken) {
  ASSERT_TRUE(start());
  auto missing = client().Get("/api/v1/status");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->status, 401);
  EXPECT_EQ(missing->get_header_value("WWW-Authenticate"), "Bearer");
  EXPECT_NE(missing->body.find("\"status\":401"), std::string::npos) << missing->body;
  auto wrong = client().Get("/api/v1/status", {{"Authorization", "Bearer " + token + "x"}});
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->status, 401);
  auto right = client().Get("/api/v1/status", bearer());
  ASSERT_TRUE(right);
  EXPECT_EQ(right->status, 200);
}

TEST_F(ConsoleSecurityTest, PagesNeedASessionOpenedByTheTokenUrl) {
  ASSERT_TRUE(start());
  auto anonymous = client().Get("/");
  ASSERT_TRUE(anonymous);
  EXPECT_EQ(anonymous->status, 401);
  auto wrong = client().Get("/?token=not-the-token-at-all");
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->status, 401);
  EXPECT_TRUE(wrong->get_header_value("Set-Cookie").empty());

  auto signed_in = client().Get("/?token=" + token);
  ASSERT_TRUE(signed_in);
  EXPECT_EQ(signed_in->status, 303);
  EXPECT_EQ(signed_in->get_header_value("Location"), "/");
  const std::string set_cookie = signed_in->get_header_value("Set-Cookie");
  EXPECT_NE(set_cookie.find("HttpOnly"), std::string::npos) << set_cookie;
  EXPECT_NE(set_cookie.find("SameSite=Strict"), std::string::npos) << set_cookie;
  EXPECT_EQ(set_cookie.find(token), std::string::npos) << "the cookie must not carry the token itself";

  auto page = client().Get("/", {{"Cookie", set_cookie.substr(0, set_cookie.find(';'))}});
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  auto forged = client().Get("/", {{"Cookie", "tsanomaly_session=" + std::string(64, 'a')}});
  ASSERT_TRUE(forged);
  EXPECT_EQ(forged->status, 401);
}

TEST_F(ConsoleSecurityTest, SignInRedirectStaysOnTheConsole) {
  ASSERT_TRUE(start());
  auto res = client().Get("//evil.example/?token=" + token);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 303);
  EXPECT_EQ(res->get_header_value("Location"), "/");
}

TEST_F(ConsoleSecurityTest, MetricsNeedNoTokenOnLoopbackOnly) {
  ASSERT_TRUE(start());
  auto res = client().Get("/metrics");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  expect_security_headers(res);
}

TEST_F(ConsoleSecurityTest, FormsNeedTheSessionsCsrfToken) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  const std::string cookie = sign_in();
  ASSERT_FALSE(cookie.empty());
  const std::string path = "/anomalies/" + id + "/false-positive";
  auto none = client().Post(path, {{"Cookie", cookie}}, "", "application/x-www-form-urlencoded");
  ASSERT_TRUE(none);
  EXPECT_EQ(none->status, 403);
  auto wrong = client().Post(path, {{"Cookie", cookie}}, "csrf=" + std::string(64, '0'),
                             "application/x-www-form-urlencoded");
  ASSERT_TRUE(wrong);
  EXPECT_EQ(wrong->status, 403);
  // Another session's token does not do either.
  const std::string other_csrf = csrf_of_page(sign_in(), id);
  auto foreign = client().Post(path, {{"Cookie", cookie}}, "csrf=" + other_csrf, "application/x-www-form-urlencoded");
  ASSERT_TRUE(foreign);
  EXPECT_EQ(foreign->status, 403);
  EXPECT_EQ(count(kFeedbackRows), 0);

  auto right = client().Post(path, {{"Cookie", cookie}}, form(cookie, id), "application/x-www-form-urlencoded");
  ASSERT_TRUE(right);
  EXPECT_EQ(right->status, 303);
  EXPECT_EQ(right->get_header_value("Location"), "/anomalies/" + id + "?result=false-positive-recorded");
  EXPECT_EQ(count(kFeedbackRows), 1);
}

TEST_F(ConsoleSecurityTest, RequestsFromAnotherOriginAreRefused) {
  ASSERT_TRUE(start());
  const std::string path = "/api/v1/anomalies/" + anomaly_ids().front() + "/acknowledge";
  httplib::Headers foreign = bearer();
  foreign.emplace("Origin", "http://evil.example");
  auto res = client().Post(path, foreign, "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
  httplib::Headers cross_site = bearer();
  cross_site.emplace("Sec-Fetch-Site", "cross-site");
  res = client().Post(path, cross_site, "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
  httplib::Headers opaque = bearer();
  opaque.emplace("Origin", "null");
  res = client().Post(path, opaque, "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403) << "an opaque origin without same-origin fetch metadata";
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 0);

  httplib::Headers same = bearer();
  same.emplace("Origin", url);
  res = client().Post(path, same, "", "text/plain");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 1);
}

TEST_F(ConsoleSecurityTest, ForeignHostNamesAreRefusedOnLoopback) {
  ASSERT_TRUE(start());
  httplib::Headers headers = bearer();
  headers.emplace("Host", "rebound.evil.example:" + std::to_string(port));
  auto res = client().Get("/metrics", headers);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
  headers = bearer();
  headers.emplace("Host", "localhost:" + std::to_string(port));
  res = client().Get("/metrics", headers);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
}

TEST_F(ConsoleSecurityTest, OversizedBodiesHeadersAndAddressesAreRefused) {
  ASSERT_TRUE(start());
  const std::string path = "/api/v1/anomalies/" + anomaly_ids().front() + "/acknowledge";
  auto body = client().Post(path, bearer(), std::string(64 * 1024, 'a'), "text/plain");
  ASSERT_TRUE(body);
  EXPECT_EQ(body->status, 413);
  EXPECT_NE(body->body.find("\"status\":413"), std::string::npos) << body->body;

  httplib::Headers many = bearer();
  for (int i = 0; i < 100; ++i) many.emplace("X-Filler-" + std::to_string(i), "x");
  auto headers = client().Get("/api/v1/status", many);
  ASSERT_TRUE(headers);
  EXPECT_EQ(headers->status, 431);

  auto address = client().Get("/api/v1/anomalies?client=" + std::string(10000, 'a'), bearer());
  ASSERT_TRUE(address);
  EXPECT_EQ(address->status, 414);
  auto filter = client().Get("/api/v1/anomalies?client=" + std::string(300, 'a'), bearer());
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->status, 400);
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 0);
}

TEST_F(ConsoleSecurityTest, OddMethodsAreRefused) {
  ASSERT_TRUE(start());
  auto put = client().Put("/api/v1/status", bearer(), "", "text/plain");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 405);
  EXPECT_EQ(put->get_header_value("Allow"), "GET, HEAD");
  auto del = client().Delete("/api/v1/anomalies/" + anomaly_ids().front(), bearer());
  ASSERT_TRUE(del);
  EXPECT_EQ(del->status, 405);
  auto get_action = client().Post("/api/v1/status", bearer(), "", "text/plain");
  ASSERT_TRUE(get_action);
  EXPECT_EQ(get_action->status, 405);
  auto nowhere = client().Post("/no/such/place", bearer(), "", "text/plain");
  ASSERT_TRUE(nowhere);
  EXPECT_EQ(nowhere->status, 404);
}

TEST_F(ConsoleSecurityTest, ErrorsCarryTheSecurityHeadersToo) {
  ASSERT_TRUE(start());
  expect_security_headers(client().Get("/"));                                   // 401 page
  expect_security_headers(client().Get("/api/v1/anomalies/none", bearer()));    // 404 JSON
  const std::string cookie = sign_in();
  expect_security_headers(client().Get("/", {{"Cookie", cookie}}));             // the list page
  expect_security_headers(client().Get("/console.css", {{"Cookie", cookie}}));  // the stylesheet
}

TEST_F(ConsoleSecurityTest, SlowClientsTimeOut) {
  ASSERT_TRUE(start());
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string partial = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  ASSERT_EQ(::send(fd, partial.data(), partial.size(), 0), static_cast<ssize_t>(partial.size()));
  timeval wait{30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const auto started = std::chrono::steady_clock::now();
  // The server gives up on the request: at most an error response, then the
  // connection closes (recv answers 0).
  std::string answer;
  char buffer[512];
  ssize_t got = 0;
  while ((got = ::recv(fd, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, static_cast<std::size_t>(got));
  const auto waited = std::chrono::steady_clock::now() - started;
  ::close(fd);
  EXPECT_EQ(got, 0);
  EXPECT_TRUE(answer.empty() || answer.rfind("HTTP/1.1 4", 0) == 0) << answer;
  EXPECT_LT(waited, std::chrono::seconds(20)) << "the server kept a silent client";
}

TEST_F(ConsoleSecurityTest, TheTokenFileIsCreatedPrivateAndCheckedOnStart) {
  const std::string file = dir.file("console.token");
  ASSERT_TRUE(start({"--token-file", file}));
  struct stat st {};
  ASSERT_EQ(::lstat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(TempDir::read(file), token + "\n");
  EXPECT_EQ(stop(), 0);
  ASSERT_TRUE(start({"--token-file", file}));
  EXPECT_EQ(TempDir::read(file), token + "\n") << "a second start keeps the token";
  EXPECT_EQ(stop(), 0);

  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  std::string err;
  EXPECT_EQ(ctl({"serve", db(), "--listen", "127.0.0.1:0", "--token-file", file}, nullptr, &err), 1);
  EXPECT_NE(err.find("may be read by other users"), std::string::npos) << err;

  const std::string link = dir.file("link.token");
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(ctl({"serve", db(), "--listen", "127.0.0.1:0", "--token-file", link}, nullptr, &err), 1);
  EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;

  TempDir::write(dir.file("short.token"), "abc\n");
  ASSERT_EQ(::chmod(dir.file("short.token").c_str(), 0600), 0);
  EXPECT_EQ(ctl({"serve", db(), "--listen", "127.0.0.1:0", "--token-file", dir.file("short.token")}, nullptr, &err),
            1);
  EXPECT_NE(err.find("16 to 256"), std::string::npos) << err;
}

TEST_F(ConsoleSecurityTest, OtherThanLoopbackNeedsATokenFile) {
  std::string err;
  EXPECT_EQ(ctl({"serve", db(), "--listen", "0.0.0.0:0"}, nullptr, &err), 2);
  EXPECT_NE(err.find("not a loopback address, without --token-file"), std::string::npos) << err;
  EXPECT_EQ(ctl({"serve", db(), "--listen", "example.org:80"}, nullptr, &err), 2);
  EXPECT_NE(err.find("--listen takes ADDR:PORT"), std::string::npos) << err;
  EXPECT_EQ(ctl({"serve", db(), "--tls-cert", "x.pem"}, nullptr, &err), 2);
  EXPECT_NE(err.find("go together"), std::string::npos) << err;
}

TEST_F(ConsoleSecurityTest, OffLoopbackEvenMetricsNeedTheToken) {
  const std::string file = dir.file("console.token");
  std::vector<std::string> argv{TSANOMALYCTL_PATH, "serve", db(), "--listen", "0.0.0.0:0", "--token-file", file};
  server = std::make_unique<tsanomaly_test::ChildProcess>(argv);
  server->start();
  ASSERT_TRUE(server->wait_for_output(" to sign in.\n", std::chrono::seconds(20))) << server->err();
  const std::string out = server->out();
  const auto colon = out.find("0.0.0.0:");
  ASSERT_NE(colon, std::string::npos) << out;
  port = std::stoi(out.substr(colon + 8));
  httplib::Client c("127.0.0.1", port);
  auto res = c.Get("/metrics");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 401);
  token = TempDir::read(file).substr(0, 64);
  res = c.Get("/metrics", bearer());
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
}

TEST_F(ConsoleSecurityTest, SigtermStopsTheServerCleanly) {
  ASSERT_TRUE(start());
  ASSERT_TRUE(client().Get("/metrics"));
  EXPECT_EQ(stop(), 0);
}

TEST_F(ConsoleSecurityTest, ServesHttpsWithTheGivenCertificate) {
  const std::string cert = dir.file("cert.pem");
  const std::string key = dir.file("key.pem");
  tsanomaly_test::ChildProcess openssl({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                                        key, "-out", cert, "-days", "2", "-subj", "/CN=127.0.0.1"});
  ASSERT_EQ(tsanomaly_test::ChildProcess::run(openssl), 0) << openssl.err();
  ASSERT_TRUE(start({"--tls-cert", cert, "--tls-key", key}));
  ASSERT_EQ(url.rfind("https://", 0), 0u) << url;
  httplib::SSLClient c("127.0.0.1", port);
  c.enable_server_certificate_verification(false);
  auto res = c.Get("/?token=" + token);
  ASSERT_TRUE(res) << httplib::to_string(res.error());
  EXPECT_EQ(res->status, 303);
  EXPECT_NE(res->get_header_value("Set-Cookie").find("; Secure"), std::string::npos);
  httplib::Client plain("127.0.0.1", port);
  EXPECT_FALSE(plain.Get("/metrics")) << "plain HTTP must not be answered on the TLS port";

  std::string err;
  EXPECT_EQ(ctl({"serve", db(), "--listen", "127.0.0.1:0", "--tls-cert", key, "--tls-key", cert}, nullptr, &err), 1);
  EXPECT_NE(err.find("TLS"), std::string::npos) << err;
}

TEST_F(ConsoleSecurityTest, APostWithoutBodyOrLengthIsTakenAsAnEmptyBody) {
  ASSERT_TRUE(start());
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string request = "POST /api/v1/anomalies/" + anomaly_ids().front() +
                              "/acknowledge HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                              "\r\nAuthorization: Bearer " + token + "\r\nConnection: close\r\n\r\n";
  ASSERT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
  timeval wait{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  std::string answer;
  char buffer[512];
  ssize_t got = 0;
  while ((got = ::recv(fd, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, static_cast<std::size_t>(got));
  ::close(fd);
  EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer;
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 1);
}

TEST_F(ConsoleSecurityTest, SignInReturnsToThePageAskedFor) {
  ASSERT_TRUE(start());
  const std::string id = anomaly_ids().front();
  auto asked = client().Get("/workloads?anomaly=" + id + "&days=30");
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->status, 401);
  EXPECT_NE(asked->body.find("<form class=\"sign-in\" method=\"get\" action=\"/workloads\">"), std::string::npos)
      << asked->body;
  EXPECT_NE(asked->body.find("name=\"anomaly\" value=\"" + id + "\""), std::string::npos);
  auto signed_in = client().Get("/workloads?anomaly=" + id + "&days=30&token=" + token);
  ASSERT_TRUE(signed_in);
  EXPECT_EQ(signed_in->status, 303);
  EXPECT_EQ(signed_in->get_header_value("Location"), "/workloads?anomaly=" + id + "&days=30");
  signed_in = client().Get("/anomalies/" + id + "?token=" + token);
  ASSERT_TRUE(signed_in);
  EXPECT_EQ(signed_in->get_header_value("Location"), "/anomalies/" + id);
}
