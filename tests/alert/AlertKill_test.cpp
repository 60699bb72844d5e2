// The alert process killed with SIGKILL at random moments while it delivers
// 200 anomalies to a slow receiver, and started again each time: in the
// end every anomaly was delivered at least once, and each kill caused at
// most one repeat (the alert in flight when it landed).
//
// Environment: TSANOMALY_ALERT_KILL_SEED (default 20241124) picks the
// delays. Each delay counts from the moment the program can have started
// (measured first), so the kills land during delivery whether the binary
// starts in 20 ms or, instrumented by a sanitizer, in 100 ms.
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

#include "tests/alert/AlertFixture.h"

namespace {

using namespace std::chrono_literals;
using tsanomaly_test::ChildProcess;

constexpr int kMinKills = 50;
constexpr int kWorkloads = 210;  // every queued job is anomalous: about 200 anomalies

class AlertKill : public AlertFixture {};

// The median time, over a few runs, the built tsanomalyctl takes to start,
// open the database and read from it: what each kill delay adds to its
// random part.
std::chrono::milliseconds start_up_time(const std::string& database) {
  std::vector<std::chrono::milliseconds> times;
  for (int i = 0; i < 5; ++i) {
    ChildProcess version({TSANOMALYCTL_PATH, "anomalies", database, "--limit", "1"});
    const auto start = std::chrono::steady_clock::now();
    ChildProcess::run(version);
    times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start));
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

TEST_F(AlertKill, EveryAnomalyIsDeliveredAndRepeatsStayWithinOnePerKill) {
  const auto ids = detect_anomalies(kWorkloads);
  ASSERT_GE(ids.size(), 200u);
  receiver.start();
  // Slow enough that a kill often lands while a request is in flight.
  receiver.delay_answers(30ms);
  write_ini(webhook_section() + "[ALERTS]\nGROUP_THRESHOLD=100000\n");
  const char* seed_text = std::getenv("TSANOMALY_ALERT_KILL_SEED");
  std::mt19937 random(seed_text != nullptr ? std::strtoul(seed_text, nullptr, 10) : 20241124u);
  const std::chrono::milliseconds start_up = start_up_time(db());
  std::uniform_int_distribution<int> delay_ms(20, 140);
  // A program that starts slowly (instrumented) delivers slowly too: its
  // window grows with it, at most threefold.
  const double slowness = std::clamp(static_cast<double>(start_up.count()) / 25.0, 1.0, 3.0);
  int kills = 0;
  const auto give_up = std::chrono::steady_clock::now() + 120s;
  while (kills < kMinKills && std::chrono::steady_clock::now() < give_up) {
    ChildProcess alert(alert_process());
    alert.start();
    std::this_thread::sleep_for(start_up + std::chrono::milliseconds(static_cast<int>(delay_ms(random) * slowness)));
    alert.send_signal(SIGKILL);
    alert.wait();
    ++kills;
  }
  const std::size_t received_while_killing = receiver.received().size();
  // A last, undisturbed cycle delivers whatever is left.
  ASSERT_EQ(alert_once(), 0) << log_;

  std::map<std::string, int> times;
  for (const std::string& id : received_ids()) ++times[id];
  int repeats = 0;
  for (const std::string& id : ids) {
    EXPECT_GE(times[id], 1) << id << " was never delivered";
    repeats += std::max(0, times[id] - 1);
  }
  std::cout << "[ kill -9  ] " << kills << " kills, " << ids.size() << " anomalies, " << receiver.received().size()
            << " deliveries (" << received_while_killing << " while killing), " << repeats << " repeats, "
            << start_up.count() << " ms to start\n";
  EXPECT_GE(kills, kMinKills);
  EXPECT_GE(received_while_killing, ids.size() / 2) << "the kills did not land while alerts were delivered";
  EXPECT_LE(repeats, kills);
  EXPECT_EQ(times.size(), ids.size());
  EXPECT_EQ(query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE STATE = 1")[0]["N"].text(),
            std::to_string(ids.size()));
}

}  // namespace
