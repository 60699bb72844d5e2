#include "ingest/ArchiveName.h"

#include <gtest/gtest.h>

namespace {

TEST(ArchiveNameTest, ThePrefixEndsWhereTheDateBegins) {
  EXPECT_EQ(archive_name_prefix("web01-home-2026-11-25T02:00:01"), "web01-home");
  EXPECT_EQ(archive_name_prefix("web01-etc-2026-11-25T11:49:31.333059"), "web01-etc");
  EXPECT_EQ(archive_name_prefix("db_2026-11-25"), "db");
}

TEST(ArchiveNameTest, WithoutADateTrailingDigitsAndSeparatorsGo) {
  EXPECT_EQ(archive_name_prefix("nightly-20261125-0200"), "nightly");
  EXPECT_EQ(archive_name_prefix("a1"), "a");
  EXPECT_EQ(archive_name_prefix("archive"), "archive");
}

TEST(ArchiveNameTest, ANameThatIsOnlyADateOrDigitsHasNoPrefix) {
  EXPECT_EQ(archive_name_prefix("2026-11-25T02:00:01"), "");
  EXPECT_EQ(archive_name_prefix("12345"), "");
  EXPECT_EQ(archive_name_prefix(""), "");
}

}  // namespace
