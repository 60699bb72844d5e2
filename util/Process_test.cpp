#include "util/Process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

TEST(Process, ExitCodeIsMinusOneBeforeAnyRun) {
  Process p("/bin/true", "");
  EXPECT_EQ(p.exit_code(), -1);
}

TEST(Process, ChildExitingWithThreeLeavesTheRawStatus768) {
  TempDir dir;
  TempDir::write(dir.file("exit3.sh"), "exit 3\n");
  Process p("/bin/sh", dir.file("exit3.sh"));
  p.start();
  EXPECT_EQ(p.exit_code(), 768);
  EXPECT_TRUE(WIFEXITED(p.exit_code()));
  EXPECT_EQ(WEXITSTATUS(p.exit_code()), 3);
}

TEST(Process, SuccessfulChildLeavesZero) {
  Process p("/bin/true", "");
  p.start();
  EXPECT_EQ(p.exit_code(), 0);
}

TEST(Process, CommandLineBufferGrowsOnlyForLongArguments) {
  EXPECT_EQ(Process::command_line_buffer_length(""), 2048u);
  EXPECT_EQ(Process::command_line_buffer_length(std::string(1024, 'a')), 2048u);
  EXPECT_EQ(Process::command_line_buffer_length(std::string(1025, 'a')), 2050u);
}

TEST(Process, LongArgumentTextReachesTheChild) {
  TempDir dir;
  const std::string word(1500, 'w');
  Process p("/bin/echo", word);
  p.redirect_to_file(dir.file("out.txt"));
  p.start();
  EXPECT_EQ(p.exit_code(), 0);
  EXPECT_EQ(TempDir::read(dir.file("out.txt")), word + "\n");
}

TEST(Process, RedirectSendsOutputAndErrorsToTheFile) {
  TempDir dir;
  TempDir::write(dir.file("both.sh"), "echo out; echo err 1>&2\n");
  Process p("/bin/sh", dir.file("both.sh"));
  p.redirect_to_file(dir.file("log.txt"));
  p.start();
  EXPECT_EQ(p.exit_code(), 0);
  EXPECT_EQ(TempDir::read(dir.file("log.txt")), "out\nerr\n");
}

TEST(Process, RedirectDoesNotTruncateALongerEarlierFile) {
  TempDir dir;
  TempDir::write(dir.file("log.txt"), "0123456789\n");
  Process p("/bin/echo", "abc");
  p.redirect_to_file(dir.file("log.txt"));
  p.start();
  EXPECT_EQ(TempDir::read(dir.file("log.txt")), "abc\n456789\n");
}

TEST(Process, WithoutRedirectTheChildWritesToOurStandardOutput) {
  TempDir dir;
  testing::internal::CaptureStdout();
  Process p("/bin/echo", "to-parent-stdout");
  p.start();
  fflush(stdout);
  // The child writes straight to descriptor 1, which the capture redirected.
  const std::string captured = testing::internal::GetCapturedStdout();
  EXPECT_EQ(p.exit_code(), 0);
  EXPECT_NE(captured.find("to-parent-stdout"), std::string::npos);
}

TEST(Process, WithoutRedirectTheChildWritesToOurStandardErrorToo) {
  testing::internal::CaptureStderr();
  Process p("/bin/ls", "/no-such-path-for-the-process-test");
  p.start();
  fflush(stderr);
  const std::string captured = testing::internal::GetCapturedStderr();
  EXPECT_NE(p.exit_code(), 0);
  EXPECT_NE(captured.find("no-such-path-for-the-process-test"), std::string::npos) << captured;
}

TEST(Process, MissingProgramLeavesAFailureStatus) {
  Process p("/no/such/program", "");
  p.start();
  EXPECT_NE(p.exit_code(), 0);
}
