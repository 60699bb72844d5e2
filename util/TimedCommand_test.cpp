// run_timed_command with real programs: the input arrives, the exit status
// decides, a program that hangs is killed at the limit with its children,
// a program that cannot be run says why, and our descriptors stay ours.
#include "util/TimedCommand.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace {

using namespace std::chrono_literals;

TEST(TimedCommand, InputReachesTheProgramAndExitZeroSucceeds) {
  const CommandOutcome outcome = run_timed_command({"/bin/cat"}, "hello alert", 5s);
  EXPECT_TRUE(outcome.succeeded()) << outcome.failure();
  EXPECT_EQ(outcome.output, "hello alert");
  EXPECT_EQ(outcome.failure(), "");
}

TEST(TimedCommand, NonZeroExitFailsWithItsFirstOutputLine) {
  const CommandOutcome outcome = run_timed_command({"/bin/sh", "-c", "echo smtp refused; echo more; exit 3"}, "", 5s);
  EXPECT_TRUE(outcome.started);
  EXPECT_FALSE(outcome.succeeded());
  EXPECT_EQ(outcome.failure(), "exit status 3: smtp refused");
}

TEST(TimedCommand, AHangingProgramAndItsChildrenAreKilledAtTheLimit) {
  const auto start = std::chrono::steady_clock::now();
  const CommandOutcome outcome = run_timed_command({"/bin/sh", "-c", "sleep 30 & sleep 30"}, "", 500ms);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(outcome.timed_out);
  EXPECT_FALSE(outcome.succeeded());
  EXPECT_LT(took, 10s);
  EXPECT_EQ(outcome.failure(), "killed at its time limit");
}

TEST(TimedCommand, AProgramThatCannotRunSaysWhy) {
  const CommandOutcome outcome = run_timed_command({"/nonexistent/notify-script"}, "{}", 5s);
  EXPECT_FALSE(outcome.started);
  EXPECT_FALSE(outcome.succeeded());
  EXPECT_NE(outcome.failure().find("cannot run /nonexistent/notify-script"), std::string::npos) << outcome.failure();
}

TEST(TimedCommand, AProgramThatIgnoresItsLargeInputDoesNotKillUs) {
  const std::string big(1 << 20, 'x');
  const CommandOutcome outcome = run_timed_command({"/bin/true"}, big, 5s);
  EXPECT_TRUE(outcome.succeeded()) << outcome.failure();
}

TEST(TimedCommand, TheProgramGetsNoOtherDescriptorOfOurs) {
  const int fd = open("/dev/null", O_RDONLY);  // without O_CLOEXEC on purpose
  ASSERT_GE(fd, 3);
  const std::string probe = "test -e /proc/self/fd/" + std::to_string(fd) + " && echo leaked || echo closed";
  const CommandOutcome outcome = run_timed_command({"/bin/sh", "-c", probe}, "", 5s);
  close(fd);
  EXPECT_EQ(outcome.output, "closed\n");
}

TEST(TimedCommand, OutputIsKeptOnlyUpToTheLimit) {
  const CommandOutcome outcome = run_timed_command({"/bin/sh", "-c", "yes | head -c 100000"}, "", 5s, 64);
  EXPECT_TRUE(outcome.succeeded()) << outcome.failure();
  EXPECT_EQ(outcome.output.size(), 64u);
}

}  // namespace
