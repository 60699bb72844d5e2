// The service's loop under a service manager (a real notification socket
// in NOTIFY_SOCKET) and without one, on a virtual clock.
#include "service/ServiceLoop.h"

#include <algorithm>
#include <cstdlib>

#include "service/PassStatus.h"
#include "tests/support/ServiceTestFixture.h"
#include "platform/StopSignal.h"
#include "tests/support/NotifySocket.h"

using tsanomaly_test::NotifySocket;

namespace {

class ManagedServiceLoopTest : public ServiceTestFixture {
 protected:
  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    StopSignal::reset();
    ServiceTestFixture::TearDown();
  }

  // Runs the loop on a virtual clock until `seconds` have passed.
  void run_for(time_t seconds) {
    time_t now = kNow;
    const time_t until = kNow + seconds;
    ServiceLoop(*service, [&] { return now; },
                [&](unsigned step) {
                  now += step;
                  if (now >= until) StopSignal::request();
                })
        .run();
  }

  std::vector<std::string> received(std::chrono::milliseconds deadline = std::chrono::milliseconds(200)) {
    std::vector<std::string> messages;
    while (auto message = notify.receive(deadline)) messages.push_back(*message);
    return messages;
  }

  NotifySocket notify{dir.file("notify.sock")};
};

}  // namespace

TEST_F(ManagedServiceLoopTest, TellsTheServiceManagerItIsReadyHowEachPassWentAndThatItStops) {
  setenv("NOTIFY_SOCKET", notify.path().c_str(), 1);
  queue(job("k1"));
  queue(job("k2", "vm2"));
  run_for(121);
  const std::vector<std::string> messages = received();
  ASSERT_EQ(messages.size(), 3u) << testing::PrintToString(messages);
  EXPECT_EQ(messages[0], "READY=1\nSTATUS=Waiting for the first pass (one every 120 s)");
  EXPECT_EQ(messages[1].rfind("STATUS=Last pass ended 2023-11-14 22:15:20: 2 jobs judged, 0 anomalies reported, "
                              "took ",
                              0),
            0u)
      << messages[1];
  EXPECT_EQ(messages[2], "STOPPING=1");
  EXPECT_EQ(count("DATA_TO_PROCESS"), 0);
}

TEST_F(ManagedServiceLoopTest, PingsTheWatchdogEverySecondWhenTheUnitAsksForOne) {
  setenv("NOTIFY_SOCKET", notify.path().c_str(), 1);
  setenv("WATCHDOG_USEC", "5000000", 1);
  run_for(3);
  const std::vector<std::string> messages = received();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "WATCHDOG=1"), 3) << testing::PrintToString(messages);
}

TEST_F(ManagedServiceLoopTest, WithoutANotifySocketSendsNothingAndRunsOnlyThePassesSql) {
  unsetenv("NOTIFY_SOCKET");
  setenv("WATCHDOG_USEC", "5000000", 1);
  queue(job("k1"));
  trace_sql();
  run_for(121);
  EXPECT_EQ(received(), std::vector<std::string>{});
  const std::vector<std::string> with_loop = traced;
  // The same pass run directly, on a like job, issues exactly the same statements.
  queue(job("k9", "vm9"));
  StopSignal::reset();
  trace_sql();
  service->do_detection();
  EXPECT_EQ(with_loop, traced);
  EXPECT_FALSE(with_loop.empty());
}

TEST_F(ManagedServiceLoopTest, PassStatusCountsJobsThatLeftTheQueueAndAnomaliesAddedButNotLaterArrivals) {
  queue(job("k1"));
  queue(job("k2", "vm2"));
  queue(job("k3", "vm3"));
  const PassStatus status = PassStatus::before_pass(service->database());
  sql("DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = 'k1'");
  sql("INSERT INTO ANOMALY_DATA VALUES ('42_1', '{}', 0, 'k2', 'c1', 1)");  // marks k2 processed
  queue(job("k4", "vm4"));  // arrived during the pass: not judged by it
  EXPECT_EQ(status.after_pass(service->database(), kNow, 2.04),
            "Last pass ended 2023-11-14 22:13:20: 2 jobs judged, 1 anomalies reported, took 2.0 s");
}

TEST_F(ManagedServiceLoopTest, PassStatusWithoutReadableCountsStillSaysWhenAndHowLong) {
  sql("DROP TABLE ANOMALY_DATA");
  const PassStatus status = PassStatus::before_pass(service->database());
  EXPECT_EQ(status.after_pass(service->database(), kNow, 0.5), "Last pass ended 2023-11-14 22:13:20: took 0.5 s");
}
