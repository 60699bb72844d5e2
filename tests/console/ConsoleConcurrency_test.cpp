// The console under concurrent requests: the status page and the status API
// replay the jobs the next pass cannot judge, and several clients asking at
// once must each get the whole answer while the server stays up.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/console/ConsoleFixture.h"

namespace {

constexpr int kClients = 8;
constexpr int kRequestsPerClient = 12;

}  // namespace

using ConsoleConcurrencyTest = ConsoleFixture;

TEST_F(ConsoleConcurrencyTest, EightClientsAskingForTheStatusAtOnceEachGetTheWholeAnswer) {
  queue_moved_jobs(4);
  ASSERT_TRUE(start());
  const std::string cookie = sign_in();
  ASSERT_FALSE(cookie.empty());

  std::atomic<int> whole{0};
  std::vector<std::string> failures(kClients);
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      httplib::Client http = client();
      for (int i = 0; i < kRequestsPerClient; ++i) {
        // Half the clients alternate page and API, so both run side by side.
        const bool page = (c + i) % 2 == 0;
        auto res = page ? http.Get("/status", {{"Cookie", cookie}}) : http.Get("/api/v1/status", bearer());
        if (!res) {
          failures[c] = "no answer to request " + std::to_string(i);
          return;
        }
        const std::string expected = page ? "JUDGE_ON_FALLBACK_FEATURES=1" : "\"unequal_features\":4";
        if (res->status != 200 || res->body.find(expected) == std::string::npos) {
          failures[c] = "request " + std::to_string(i) + ": " + std::to_string(res->status) + " " + res->body;
          return;
        }
        ++whole;
      }
    });
  }
  for (std::thread& t : clients) t.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
  EXPECT_EQ(whole.load(), kClients * kRequestsPerClient);
  // Still serving after the burst.
  auto after = client().Get("/api/v1/status", bearer());
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
  EXPECT_EQ(stop(), 0);
}
