#include "platform/LogFileOpen.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

namespace {

class LogFileOpenTest : public ::testing::Test {
 protected:
  std::string folder() const { return dir.file("tsanomalydetect"); }
  TempDir dir;
};

}  // namespace

TEST_F(LogFileOpenTest, CreatesTheFolderAndAppendsToTheFile) {
  const int fd = open_log_file(folder(), "x.log", 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "one\n", 4), 4);
  close(fd);
  const int again = open_log_file(folder(), "x.log", 0644);
  ASSERT_GE(again, 0);
  ASSERT_EQ(write(again, "two\n", 4), 4);
  close(again);
  EXPECT_EQ(TempDir::read(dir.file("tsanomalydetect/x.log")), "one\ntwo\n");
}

TEST_F(LogFileOpenTest, ASymbolicLinkInPlaceOfTheFileIsRefusedAndItsTargetUntouched) {
  ASSERT_EQ(mkdir(folder().c_str(), 0755), 0);
  TempDir::write(dir.file("victim"), "precious");
  ASSERT_EQ(symlink(dir.file("victim").c_str(), dir.file("tsanomalydetect/x.log").c_str()), 0);
  EXPECT_LT(open_log_file(folder(), "x.log", 0644), 0);
  EXPECT_EQ(TempDir::read(dir.file("victim")), "precious");
}

TEST_F(LogFileOpenTest, ASymbolicLinkInPlaceOfTheFolderIsRefused) {
  ASSERT_EQ(mkdir(dir.file("elsewhere").c_str(), 0755), 0);
  ASSERT_EQ(symlink(dir.file("elsewhere").c_str(), folder().c_str()), 0);
  EXPECT_LT(open_log_file(folder(), "x.log", 0644), 0);
  EXPECT_NE(access(dir.file("elsewhere/x.log").c_str(), F_OK), 0);
}

TEST_F(LogFileOpenTest, AFifoInPlaceOfTheFileIsRefusedWithoutBlocking) {
  ASSERT_EQ(mkdir(folder().c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(dir.file("tsanomalydetect/x.log").c_str(), 0666), 0);
  EXPECT_LT(open_log_file(folder(), "x.log", 0644), 0);
  // With a reader waiting, the open itself succeeds: the type check refuses it.
  const int reader = open(dir.file("tsanomalydetect/x.log").c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  errno = 0;
  EXPECT_LT(open_log_file(folder(), "x.log", 0644), 0);
  EXPECT_EQ(errno, EPERM);
  close(reader);
}

TEST_F(LogFileOpenTest, AFolderOfAnotherOrdinaryUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give the folder to another user";
  ASSERT_EQ(mkdir(folder().c_str(), 0755), 0);
  ASSERT_EQ(chown(folder().c_str(), 65534, 65534), 0);  // nobody
  errno = 0;
  EXPECT_LT(open_log_file(folder(), "x.log", 0644), 0);
  EXPECT_EQ(errno, EPERM);
  EXPECT_NE(access(dir.file("tsanomalydetect/x.log").c_str(), F_OK), 0);
}
