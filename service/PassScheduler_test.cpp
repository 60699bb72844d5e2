// The pass rhythm on a virtual clock: nothing in the first 119 s, a pass at
// 120 s, then 120 s after each pass ends.
#include "service/PassScheduler.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/ServiceTestFixture.h"
#include "platform/StopSignal.h"

namespace {

// A virtual clock that sleeping advances; it stops the run at `until`.
struct VirtualTime {
  time_t now = 1000;
  time_t until = 0;
  std::vector<unsigned> sleeps;

  PassScheduler scheduler() {
    return PassScheduler([this] { return now; },
                         [this](unsigned seconds) {
                           sleeps.push_back(seconds);
                           now += seconds;
                         },
                         [this] { return now >= until; });
  }
};

}  // namespace

TEST(PassScheduler, NoPassDuringTheFirst119Seconds) {
  VirtualTime time;
  time.until = 1000 + 119;
  int passes = 0;
  time.scheduler().run([&] { ++passes; });
  EXPECT_EQ(passes, 0);
  EXPECT_EQ(time.sleeps.size(), 119u);
}

TEST(PassScheduler, FirstPassAt120SecondsThen120SecondsAfterEachPassEnds) {
  VirtualTime time;
  time.until = 1000 + 600;
  std::vector<time_t> starts;
  time.scheduler().run([&] {
    starts.push_back(time.now - 1000);
    time.now += 30;  // the pass itself takes 30 s
  });
  // 120; ends 150 -> 270; ends 300 -> 420; ends 450 -> 570.
  EXPECT_EQ(starts, (std::vector<time_t>{120, 270, 420, 570}));
}

TEST(PassScheduler, PollsOnceASecond) {
  VirtualTime time;
  time.until = 1000 + 5;
  time.scheduler().run([] {});
  EXPECT_EQ(time.sleeps, (std::vector<unsigned>{1, 1, 1, 1, 1}));
}

TEST(PassScheduler, StopRequestedBeforeStartRunsNothing) {
  VirtualTime time;
  time.until = 0;
  int passes = 0;
  time.scheduler().run([&] { ++passes; });
  EXPECT_EQ(passes, 0);
  EXPECT_TRUE(time.sleeps.empty());
}

using ServiceLoopTest = ServiceTestFixture;

TEST_F(ServiceLoopTest, StartRunsPassesOnTheRhythmUntilAStopIsRequested) {
  StopSignal::reset();
  time_t virtual_now = 5000;
  service->set_clock([&] { return virtual_now; });
  service->set_sleep([&](unsigned seconds) {
    virtual_now += seconds;
    if (virtual_now >= 5000 + 365) StopSignal::request();
  });
  service->start();
  StopSignal::reset();
  int passes = 0;
  for (const std::string& line : log_lines()) {
    passes += line == "<2> dbscan_detection: Getting data for detection from database." ? 1 : 0;
  }
  EXPECT_EQ(passes, 3);  // at 120, 240 and 360 s
}

TEST_F(ServiceLoopTest, StopDuringAPassFinishesTheJobInHandAndLeavesTheRest) {
  StopSignal::reset();
  const std::string ini = dir.file("d.ini");
  tsanomaly_test::TempDir::write(ini, "[EXCLUDE_CLIENTS]\nCLIENT_NAME=c1\n");
  DetectionService excluding(dir.path(), "anomaly.db", 0.5, 3.0, ini);
  for (const char* key : {"k1", "k2", "k3"}) queue(job(key));
  // The first job's history write is where the stop arrives.
  sqlite3_update_hook(
      excluding.database().handle,
      [](void*, int operation, const char*, const char* table, sqlite3_int64) {
        if (operation == SQLITE_INSERT && std::string(table) == "HIST_DATA") StopSignal::request();
      },
      nullptr);
  excluding.do_detection();
  StopSignal::reset();
  EXPECT_EQ(count("HIST_DATA"), 1);
  EXPECT_EQ(count("DATA_TO_PROCESS"), 2);
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0")[0]["n"], 2);
}

TEST_F(ServiceLoopTest, StopBeforeAPassLeavesEveryJobPending) {
  for (const char* key : {"k1", "k2"}) queue(job(key));
  StopSignal::request();
  service->do_detection();
  StopSignal::reset();
  EXPECT_EQ(count("DATA_TO_PROCESS"), 2);
  EXPECT_EQ(count("HIST_DATA"), 0);
}
