// Clients that try to wear the console down over real loopback sockets:
// endless request heads from several clients at once, and clients that drip
// their heads slowly. The console must stay small and keep answering the
// others. Memory is read from /proc as a generous sanity bound, not a
// measurement (bench/console_hostile_clients.py measures).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/console/ConsoleFixture.h"

namespace {

constexpr std::size_t kFloodBytes = 150u * 1024 * 1024;
// Growth allowed while flooded: the sanitizer build's baseline is larger.
constexpr long kRssGrowthBoundKiB = 64 * 1024;

int connect_to(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool send_all(int fd, const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

// Resident memory of a process, in KiB (0 when it cannot be read).
long rss_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// Sends a request head that never ends; the bytes sent before the console
// closed the connection (kFloodBytes when it never did).
std::size_t flood(int port) {
  const int fd = connect_to(port);
  if (fd < 0) return 0;
  std::size_t sent = 0;
  const std::string line = "X-Filler: " + std::string(1000, 'f') + "\r\n";
  std::string block;
  while (block.size() < 64 * 1024) block += line;
  if (send_all(fd, "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n")) {
    while (sent < kFloodBytes && send_all(fd, block)) sent += block.size();
  }
  ::close(fd);
  return sent;
}

// Reads what the console answers on fd until it closes the connection.
std::string answer_of(int fd) {
  timeval wait{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  std::string answer;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::recv(fd, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, static_cast<std::size_t>(got));
  return answer;
}

}  // namespace

using ConsoleHostileClientsTest = ConsoleFixture;

TEST_F(ConsoleHostileClientsTest, HeaderFloodsFromSeveralClientsAreCutShortAndOthersAreStillServed) {
  ASSERT_TRUE(start());
  ASSERT_TRUE(client().Get("/metrics"));
  const long baseline = rss_kib(server->pid());
  std::atomic<bool> flooding{true};
  std::atomic<long> peak{0};
  std::thread watch([&] {
    while (flooding) {
      peak = std::max(peak.load(), rss_kib(server->pid()));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  std::vector<std::size_t> sent(4);
  std::vector<std::thread> floods;
  for (std::size_t i = 0; i < sent.size(); ++i) floods.emplace_back([&, i] { sent[i] = flood(port); });
  auto during = client().Get("/metrics");
  for (auto& t : floods) t.join();
  flooding = false;
  watch.join();
  ASSERT_TRUE(during) << httplib::to_string(during.error());
  EXPECT_EQ(during->status, 200);
  for (const std::size_t bytes : sent) EXPECT_LT(bytes, kFloodBytes / 10) << "a flood was read far past the limit";
  EXPECT_GT(baseline, 0);
  EXPECT_LT(peak.load() - baseline, kRssGrowthBoundKiB) << "the console grew from " << baseline << " to "
                                                        << peak.load() << " KiB";
  auto after = client().Get("/metrics");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
}

TEST_F(ConsoleHostileClientsTest, DrippingClientsDoNotStallOthersAndAreCutAtTheRequestDeadline) {
  ASSERT_TRUE(start());
  std::vector<int> drips;
  for (int i = 0; i < 10; ++i) {
    const int fd = connect_to(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(send_all(fd, "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
    drips.push_back(fd);
  }
  // Each dripper sends one header line a second, inside any idle timeout,
  // until the console closes it.
  std::atomic<int> cut{0};
  std::vector<std::thread> drippers;
  const auto began = std::chrono::steady_clock::now();
  for (const int fd : drips) {
    drippers.emplace_back([fd, &cut, began] {
      while (std::chrono::steady_clock::now() - began < std::chrono::seconds(30)) {
        if (!send_all(fd, "X-Drip: 1\r\n")) {
          ++cut;
          break;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
      }
      ::close(fd);
    });
  }
  int answered = 0;
  for (int i = 0; i < 5; ++i) {
    httplib::Client c(url);
    c.set_read_timeout(5);
    auto res = c.Get("/metrics");
    if (res && res->status == 200) ++answered;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  EXPECT_EQ(answered, 5) << "requests went unanswered while clients dripped";
  for (auto& t : drippers) t.join();
  EXPECT_EQ(cut.load(), 10) << "a dripping client was kept past the request deadline";
}

TEST_F(ConsoleHostileClientsTest, BodiesTooLargeToReadAreRefusedUnread) {
  ASSERT_TRUE(start());
  const std::string head = "POST /api/v1/anomalies/" + anomaly_ids().front() + "/acknowledge HTTP/1.1\r\nHost: 127.0.0.1:" +
                           std::to_string(port) + "\r\nAuthorization: Bearer " + token + "\r\n";
  // Declared too large: refused before a byte of it is read.
  int fd = connect_to(port);
  ASSERT_TRUE(send_all(fd, head + "Content-Length: 100000000\r\n\r\n"));
  std::string answer = answer_of(fd);
  ::close(fd);
  EXPECT_EQ(answer.rfind("HTTP/1.1 413", 0), 0u) << answer;
  EXPECT_NE(answer.find("\"status\":413"), std::string::npos) << answer;

  // Sent in chunks without end: the connection is closed once it passes
  // what the console would read and drop.
  fd = connect_to(port);
  ASSERT_TRUE(send_all(fd, head + "Transfer-Encoding: chunked\r\n\r\n"));
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'b') + "\r\n";
  std::size_t sent = 0;
  while (sent < kFloodBytes && send_all(fd, chunk)) sent += chunk.size();
  ::close(fd);
  EXPECT_LT(sent, kFloodBytes / 10) << "an endless body was read on";
  EXPECT_EQ(count("SELECT COUNT(*) AS N FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1"), 0);
}
