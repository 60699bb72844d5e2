#include "util/SafeFile.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

namespace {

mode_t mode_of(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

// Runs body under the given umask and restores the previous one.
template <typename Body>
void under_mask(mode_t mask, Body body) {
  const mode_t previous = umask(mask);
  body();
  umask(previous);
}

int entries_in(const std::string& folder) {
  int count = 0;
  DIR* dir = opendir(folder.c_str());
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' || entry->d_name[1] > '.' ? 1 : 0;
  closedir(dir);
  return count;
}

}  // namespace

TEST(SafeFile, ReplaceWritesTheWholeContentAndLeavesNoTemporaryFile) {
  TempDir dir;
  TempDir::write(dir.file("page.html"), "old");
  SafeFile::replace(dir.file("page.html"), "new content");
  EXPECT_EQ(TempDir::read(dir.file("page.html")), "new content");
  EXPECT_EQ(entries_in(dir.path()), 1);
}

TEST(SafeFile, ReplaceModeIsAtMost0644AndHonoursTheUmask) {
  TempDir dir;
  const std::string page = dir.file("page.html");
  under_mask(000, [&] { SafeFile::replace(page, "x"); });
  EXPECT_EQ(mode_of(page), 0644u);
  under_mask(022, [&] { SafeFile::replace(page, "x"); });
  EXPECT_EQ(mode_of(page), 0644u);
  under_mask(077, [&] { SafeFile::replace(page, "x"); });
  EXPECT_EQ(mode_of(page), 0600u);
}

TEST(SafeFile, ReplaceSwapsASymbolicLinkForAFileInsteadOfWritingThroughIt) {
  TempDir dir;
  TempDir::write(dir.file("victim"), "precious");
  ASSERT_EQ(symlink(dir.file("victim").c_str(), dir.file("page.html").c_str()), 0);
  SafeFile::replace(dir.file("page.html"), "report");
  EXPECT_EQ(TempDir::read(dir.file("victim")), "precious");
  struct stat st {};
  ASSERT_EQ(lstat(dir.file("page.html").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(TempDir::read(dir.file("page.html")), "report");
}

TEST(SafeFile, ReplaceInAMissingFolderThrowsWithThePathAndReason) {
  TempDir dir;
  try {
    SafeFile::replace(dir.file("no/such/page.html"), "x");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "cannot write '" + dir.file("no/such/page.html") + "': No such file or directory");
  }
}

TEST(SafeFile, ReplaceOntoAFolderFailsAndLeavesNoTemporaryFile) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0755), 0);
  TempDir::write(dir.file("sub/keep"), "k");
  EXPECT_THROW(SafeFile::replace(dir.file("sub"), "x"), std::runtime_error);
  EXPECT_EQ(entries_in(dir.path()), 1);
}

TEST(SafeFile, CreateNewMakesAnEmptyFileWithTheModeUnderTheUmask) {
  TempDir dir;
  under_mask(000, [&] { SafeFile::create_new(dir.file("a.db")); });
  EXPECT_EQ(mode_of(dir.file("a.db")), 0644u);
  under_mask(077, [&] { SafeFile::create_new(dir.file("b.db")); });
  EXPECT_EQ(mode_of(dir.file("b.db")), 0600u);
  EXPECT_EQ(TempDir::read(dir.file("a.db")), "");
}

TEST(SafeFile, CreateNewRefusesAnExistingFileAndADanglingLinkWithoutCreatingItsTarget) {
  TempDir dir;
  TempDir::write(dir.file("there"), "x");
  EXPECT_THROW(SafeFile::create_new(dir.file("there")), std::runtime_error);
  ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file("link").c_str()), 0);
  EXPECT_THROW(SafeFile::create_new(dir.file("link")), std::runtime_error);
  EXPECT_NE(access(dir.file("target").c_str(), F_OK), 0);
}
