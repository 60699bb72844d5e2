#include "platform/DebugLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

namespace {

class DebugLogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    close_debug_log();
    set_debug_log_rotation(50u * 1024u * 1024u, 5);
  }

  std::string log_file() const { return dir.file("tsanomalydetect/tsanomalydetect.log"); }

  int open_log(int mode = 0644) {
    int status = 0;
    const int fd = open_debug_log(dir.path(), "tsanomalydetect", "tsanomalydetect", mode, &status);
    EXPECT_EQ(status, 0);
    return fd;
  }

  static std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  TempDir dir;
};

}  // namespace

TEST_F(DebugLogTest, OpeningCreatesTheFolderAndFile) {
  EXPECT_GE(open_log(), 0);
  EXPECT_EQ(debug_log_path(), log_file());
  EXPECT_EQ(access(log_file().c_str(), F_OK), 0);
}

TEST_F(DebugLogTest, LineHasTimestampPidLevelAndCategory) {
  open_log();
  logmsgf(2, "dbscan_detection", "Processing %d records", 3);
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 1u);
  const std::regex shape(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[(\d+)\] <2> dbscan_detection: Processing 3 records$)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(lines[0], match, shape)) << lines[0];
  EXPECT_EQ(match[1].str(), std::to_string(getpid()));
}

TEST_F(DebugLogTest, LevelIsWrittenInDecimal) {
  open_log();
  logmsgf(16, "c", "x");
  logmsgf(4, "c", "y");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("] <16> c: x"), std::string::npos);
  EXPECT_NE(lines[1].find("] <4> c: y"), std::string::npos);
}

TEST_F(DebugLogTest, ArgumentsAreNeverTakenAsAFormat) {
  open_log();
  logmsgf(2, "c", "%s", "100% done %s %n");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("c: 100% done %s %n"), std::string::npos);
}

TEST_F(DebugLogTest, LinesAreOnDiskAsSoonAsTheCallReturns) {
  open_log();
  logmsgf(2, "c", "first");
  // Read through a separate descriptor, without closing ours: nothing is
  // held back in a buffer of this process.
  EXPECT_NE(TempDir::read(log_file()).find("c: first\n"), std::string::npos);
}

TEST_F(DebugLogTest, ReopeningAppends) {
  open_log();
  logmsgf(2, "c", "one");
  close_debug_log();
  open_log();
  logmsgf(2, "c", "two");
  EXPECT_EQ(lines_of(TempDir::read(log_file())).size(), 2u);
}

TEST_F(DebugLogTest, FileIsCreatedWithTheModeGiven) {
  const mode_t old_mask = umask(022);
  open_log(0640);
  umask(old_mask);
  struct stat st {};
  ASSERT_EQ(stat(log_file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(DebugLogTest, MissingDirectoryGivesNegativeStatus) {
  int status = 0;
  const int fd = open_debug_log(dir.file("no/such"), "tsanomalydetect", "tsanomalydetect", 0644, &status);
  EXPECT_LT(status, 0);
  EXPECT_LT(fd, 0);
  EXPECT_EQ(debug_log_path(), "");
}

TEST_F(DebugLogTest, UnwritableFolderGivesNegativeStatus) {
  if (geteuid() == 0) {
    // root writes through permissions; a path under a regular file fails for everyone.
    TempDir::write(dir.file("plainfile"), "x");
    int status = 0;
    open_debug_log(dir.file("plainfile"), "n", "n", 0644, &status);
    EXPECT_LT(status, 0);
    return;
  }
  ASSERT_EQ(chmod(dir.path().c_str(), 0500), 0);
  int status = 0;
  open_debug_log(dir.path(), "n", "n", 0644, &status);
  EXPECT_LT(status, 0);
}

TEST_F(DebugLogTest, LinesBeforeOpeningAreDiscarded) {
  logmsgf(2, "c", "lost");
  open_log();
  logmsgf(2, "c", "kept");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("kept"), std::string::npos);
}

TEST_F(DebugLogTest, RotatesBySizeAndKeepsTheConfiguredNumberOfOldFiles) {
  set_debug_log_rotation(200, 2);
  open_log();
  for (int i = 0; i < 20; ++i) logmsgf(2, "c", "line %02d padded to take some room", i);
  const std::string current = TempDir::read(log_file());
  const std::string first = TempDir::read(log_file() + ".1");
  const std::string second = TempDir::read(log_file() + ".2");
  EXPECT_LE(current.size(), 200u);
  EXPECT_LE(first.size(), 200u);
  EXPECT_FALSE(second.empty());
  EXPECT_NE(access((log_file() + ".3").c_str(), F_OK), 0);
  EXPECT_NE(current.find("line 19"), std::string::npos);
  // Older lines move to higher numbers; the newest old file is .1.
  EXPECT_NE(first.find("line 1"), std::string::npos);
  EXPECT_EQ(current.find("line 00"), std::string::npos);
}

TEST_F(DebugLogTest, LongMessagesAreWrittenWhole) {
  open_log();
  const std::string big(100000, 'z');
  logmsgf(2, "c", "%s", big.c_str());
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(big), std::string::npos);
}

TEST_F(DebugLogTest, LoggingGoesOnWhenTheFolderIsRemoved) {
  const int fd = open_log();
  ASSERT_GE(fd, 0);
  logmsgf(kLogProgress, "c", "before");
  ASSERT_EQ(unlink(log_file().c_str()), 0);
  ASSERT_EQ(rmdir(dir.file("tsanomalydetect").c_str()), 0);
  logmsgf(kLogProgress, "c", "after");
  // The open descriptor still reaches the removed file: later lines go on
  // being written there, whole, after the earlier ones.
  const auto lines = lines_of(TempDir::read("/proc/self/fd/" + std::to_string(fd)));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("<2> c: before"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("<2> c: after"), std::string::npos) << lines[1];
}

TEST_F(DebugLogTest, NamedLevelsAreTheNumbersTheLinesCarry) {
  open_log();
  logmsgf(kLogProgress, "c", "p");
  logmsgf(kLogWarning, "c", "w");
  logmsgf(kLogError, "c", "e");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("] <2> c: p"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("] <4> c: w"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("] <16> c: e"), std::string::npos) << lines[2];
}

TEST_F(DebugLogTest, AValueWithALineBreakCannotForgeASecondLine) {
  open_log();
  const std::string forged = "web-01\n2026-11-21 03:14:07.412 [4242] <2> dbscan_detection: Anomaly detected for job 1";
  logmsgf(2, "dbscan_detection", "Ignoring client '%s' for detection as per configuration.", forged.c_str());
  logmsgf(2, "c", "title \x1b]0;owned\x07 and \xff");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("<2> dbscan_detection: Ignoring client 'web-01\\n2026-11-21 03:14:07.412 [4242] <2> "
                          "dbscan_detection: Anomaly detected for job 1' for detection as per configuration."),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find("<2> c: title \\x1b]0;owned\\x07 and \\xff"), std::string::npos) << lines[1];
}

namespace {

std::string formatted(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = format_log_message(format, args);
  va_end(args);
  return text;
}

}  // namespace

// The two halves of logmsgf give the same line as logmsgf itself.
TEST_F(DebugLogTest, AMessageFormattedThenWrittenIsTheLineLogmsgfWrites) {
  open_log();
  const std::string message = formatted("value %s", "a\nb");
  EXPECT_EQ(message, "value a\\nb");
  write_log_message(kLogWarning, "c", message);
  logmsgf(kLogWarning, "c", "value %s", "a\nb");
  const auto lines = lines_of(TempDir::read(log_file()));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("<4> c: value a\\nb"), std::string::npos) << lines[0];
  EXPECT_EQ(lines[0].substr(lines[0].find(" <")), lines[1].substr(lines[1].find(" <")));
}
