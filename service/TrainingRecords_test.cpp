#include "service/TrainingRecords.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/TempDir.h"

using namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase;

namespace {

class TrainingRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db.execute_query(
        "CREATE TABLE h(NUM_FILES INTEGER, IMAGE_SIZE REAL, KB_TRANSFERRED REAL, TOTAL_TIME INTEGER, "
        "DEDUP_RATE REAL, USER_IDENTIFIED_CLUSTER INTEGER, NOTE TEXT);"
        "INSERT INTO h VALUES (38386, 141675384.0, 17563781.25, 12057, 8.07, -1, 'a'),"
        "  (0, 0.1, 1e300, 4294967297, 1234567.890123456789, 1, 'b'),"
        "  ('12abc', '2.5kb', NULL, -7, ' 3.5', 'x', 'c');");
  }

  // Every value as read the two ways, which must agree bit for bit.
  void expect_same(const TrainingRecords& read, const Rows& rows) {
    const TrainingRecords converted = TrainingRecords::of(rows);
    ASSERT_EQ(read.size(), rows.size());
    ASSERT_EQ(converted.size(), rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
      for (int f = 0; f < kFeatureCount; ++f) {
        const auto found = rows[r].find(kFeatures[f].column);
        const double expected = found != rows[r].end() ? static_cast<double>(found->second) : 0.0;
        const double got = read.feature(r, f);
        const double got_from_rows = converted.feature(r, f);
        EXPECT_EQ(std::memcmp(&expected, &got, sizeof got), 0) << r << " " << f;
        EXPECT_EQ(std::memcmp(&expected, &got_from_rows, sizeof got), 0) << r << " " << f;
      }
      const auto verdict = rows[r].find(TrainingRecords::kUserVerdictName);
      const int expected = verdict != rows[r].end() ? static_cast<int>(verdict->second) : 0;
      EXPECT_EQ(read.user_verdict(r), expected) << r;
      EXPECT_EQ(converted.user_verdict(r), expected) << r;
    }
  }

  void check(const std::string& sql) {
    Rows rows;
    {
      Statement st(db.handle, sql);
      db.read_data_prepared(st, rows);
    }
    TrainingRecords read;
    {
      Statement st(db.handle, sql);
      read.read(db, st);
    }
    expect_same(read, rows);
  }

  tsanomaly_test::TempDir dir;
  DBAccess db{dir.file("test.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX};
};

}  // namespace

TEST_F(TrainingRecordsTest, FullSetReadsAsItsRowsConvert) {
  check("SELECT NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE, USER_IDENTIFIED_CLUSTER FROM h");
}

TEST_F(TrainingRecordsTest, MissingColumnsReadAsZero) {
  check("SELECT NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, USER_IDENTIFIED_CLUSTER FROM h");
}

TEST_F(TrainingRecordsTest, OtherColumnsAreIgnoredAndARepeatedNameKeepsTheLaterCell) {
  check("SELECT NOTE, IMAGE_SIZE AS NUM_FILES, NUM_FILES, TOTAL_TIME AS DEDUP_RATE FROM h");
}

TEST_F(TrainingRecordsTest, ANewSetIsEmptyAndClearEmptiesIt) {
  TrainingRecords records;
  EXPECT_TRUE(records.empty());
  Statement st(db.handle, "SELECT NUM_FILES FROM h");
  records.read(db, st);
  EXPECT_EQ(records.size(), 3u);
  records.clear();
  EXPECT_EQ(records.size(), 0u);
}
