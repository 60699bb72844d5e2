#include "util/Directory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

TEST(Path, CombineAlwaysInsertsOneSlash) {
  EXPECT_EQ(Path::Combine("/a", "b"), "/a/b");
  EXPECT_EQ(Path::Combine("/a/", "b"), "/a//b");
  EXPECT_EQ(Path::Combine("", "b"), "/b");
  EXPECT_EQ(Path::Combine("/a", "/b"), "/a//b");
  EXPECT_EQ(Path::Combine("", ""), "/");
}

TEST(File, SizeIsInWholeKilobytes) {
  TempDir dir;
  TempDir::write(dir.file("small"), std::string(1023, 'x'));
  TempDir::write(dir.file("two"), std::string(2048, 'x'));
  TempDir::write(dir.file("almost3"), std::string(3071, 'x'));
  EXPECT_EQ(File::Size(dir.file("small")), 0);
  EXPECT_EQ(File::Size(dir.file("two")), 2);
  EXPECT_EQ(File::Size(dir.file("almost3")), 2);
  EXPECT_EQ(File::Size(dir.file("missing")), 0);
}

TEST(File, ExistsMeansReadable) {
  TempDir dir;
  TempDir::write(dir.file("f"), "x");
  EXPECT_TRUE(File::Exists(dir.file("f")));
  EXPECT_FALSE(File::Exists(dir.file("missing")));
}

TEST(File, DeleteOfAMissingPathReturnsZero) {
  TempDir dir;
  EXPECT_EQ(File::Delete(dir.file("missing")), 0);
  TempDir::write(dir.file("f"), "x");
  EXPECT_EQ(File::Delete(dir.file("f")), 0);
  EXPECT_FALSE(File::Exists(dir.file("f")));
}

TEST(File, ReadAllTextOfAMissingPathThrowsFileNotFound) {
  try {
    File::ReadAllText("/x/y");
    FAIL() << "expected file_not_found";
  } catch (const file_not_found& e) {
    EXPECT_STREQ(e.what(), "File not found '/x/y'.");
  }
}

TEST(File, WriteThenReadRoundTripsBytes) {
  TempDir dir;
  const std::string bytes("line1\nline2\0tail", 16);
  File::WriteAllText(dir.file("f"), bytes);
  EXPECT_EQ(File::ReadAllText(dir.file("f")), bytes);
  File::WriteAllText(dir.file("f"), "short");  // truncates
  EXPECT_EQ(File::ReadAllText(dir.file("f")), "short");
}

TEST(File, WriteIntoAMissingFolderFailsSilently) {
  TempDir dir;
  EXPECT_NO_THROW(File::WriteAllText(dir.file("no/such/file"), "x"));
  EXPECT_FALSE(File::Exists(dir.file("no/such/file")));
}

TEST(Directory, UnlinkFileOfAMissingPathReturnsZero) {
  TempDir dir;
  EXPECT_EQ(Directory::UnlinkFile(dir.file("missing")), 0);
  TempDir::write(dir.file("f"), "x");
  EXPECT_EQ(Directory::UnlinkFile(dir.file("f")), 0);
  EXPECT_FALSE(Directory::Exists(dir.file("f")));
}

TEST(Directory, MkDirCreatesOneLevelAndRmDirRemovesIt) {
  TempDir dir;
  EXPECT_EQ(Directory::MkDir(dir.file("a")), 0);
  EXPECT_TRUE(Directory::is_folder(dir.file("a")));
  EXPECT_EQ(Directory::MkDir(dir.file("b/c")), -1);  // parents are not created
  EXPECT_EQ(Directory::MkDir(dir.file("a")), -1);
  EXPECT_EQ(Directory::RmDir(dir.file("a")), 0);
  EXPECT_FALSE(Directory::CanAccess(dir.file("a")));
  EXPECT_EQ(Directory::RmDir(dir.file("a")), -1);
}

TEST(Directory, ExistsAndCanAccessAgree) {
  TempDir dir;
  EXPECT_TRUE(Directory::Exists(dir.path()));
  EXPECT_TRUE(Directory::CanAccess(dir.path()));
  EXPECT_FALSE(Directory::Exists(dir.file("missing")));
  EXPECT_FALSE(Directory::CanAccess(dir.file("missing")));
}

TEST(Directory, SymbolicLinkToAFolderIsNotAFolder) {
  TempDir dir;
  ASSERT_EQ(Directory::MkDir(dir.file("real")), 0);
  ASSERT_EQ(symlink(dir.file("real").c_str(), dir.file("link").c_str()), 0);
  EXPECT_TRUE(Directory::is_folder(dir.file("real")));
  EXPECT_FALSE(Directory::is_folder(dir.file("link")));
  EXPECT_FALSE(Directory::is_folder(dir.file("missing")));
}

TEST(Directory, ListingSeparatesFoldersFromEverythingElse) {
  TempDir dir;
  Directory::MkDir(dir.file("d1"));
  Directory::MkDir(dir.file("d2"));
  TempDir::write(dir.file("f1"), "x");
  ASSERT_EQ(symlink(dir.file("d1").c_str(), dir.file("l1").c_str()), 0);

  auto folders = Directory::GetDirectories(dir.path());
  auto files = Directory::GetFiles(dir.path());
  std::sort(folders.begin(), folders.end());
  std::sort(files.begin(), files.end());
  EXPECT_EQ(folders, (std::vector<std::string>{"d1", "d2"}));
  EXPECT_EQ(files, (std::vector<std::string>{"f1", "l1"}));
}

TEST(Directory, ListingAppendsToWhatTheVectorHolds) {
  TempDir dir;
  Directory::MkDir(dir.file("d"));
  std::vector<std::string> out{"earlier"};
  Directory::GetDirectories(dir.path(), out);
  EXPECT_EQ(out, (std::vector<std::string>{"earlier", "d"}));
}

TEST(Directory, ListingAMissingFolderLeavesTheVectorUnchanged) {
  std::vector<std::string> out{"kept"};
  Directory::GetDirectories("/no/such/folder", out);
  Directory::GetFiles("/no/such/folder", out);
  EXPECT_EQ(out, (std::vector<std::string>{"kept"}));
}
