#include "ingest/BaculaCatalogFormat.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "schema/BaculaCatalogSql.h"
#include "storage/DBAccess.h"
#include "tests/support/CollectingJobSink.h"
#include "tests/support/TempDir.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using tsanomaly_test::CollectingJobSink;
using tsanomaly_test::TempDir;

// The columns of Bacula's own catalog that the query reads.
const char* kCatalogTables = R"(
CREATE TABLE Client (ClientId INTEGER PRIMARY KEY, Name TEXT NOT NULL);
CREATE TABLE FileSet (FileSetId INTEGER PRIMARY KEY, FileSet TEXT NOT NULL);
CREATE TABLE Pool (PoolId INTEGER PRIMARY KEY, Name TEXT NOT NULL);
CREATE TABLE Job (JobId INTEGER PRIMARY KEY, Job TEXT NOT NULL, Name TEXT NOT NULL, Type CHAR NOT NULL,
  Level CHAR NOT NULL, ClientId INTEGER DEFAULT 0, JobStatus CHAR NOT NULL, StartTime DATETIME,
  EndTime DATETIME, JobFiles INTEGER DEFAULT 0, JobBytes BIGINT DEFAULT 0, ReadBytes BIGINT DEFAULT 0,
  PoolId INTEGER DEFAULT 0, FileSetId INTEGER DEFAULT 0);
INSERT INTO Client VALUES (1, 'web-fd');
INSERT INTO FileSet VALUES (1, 'Full Set');
INSERT INTO Pool VALUES (1, 'File');
)";

class BaculaCatalogFormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(kCatalogTables);
  }

  void add_job(int id, const std::string& start, char type = 'B', char status = 'T', int files = 300) {
    DBAccess db(path, SQLITE_OPEN_READWRITE);
    db.execute_query("INSERT INTO Job VALUES (" + std::to_string(id) + ", 'files." + std::to_string(id) +
                     "', 'files', '" + type + "', 'I', 1, '" + status + "', '" + start + "', '" + start +
                     "', " + std::to_string(files) + ", 1024, 4096, 1, 1)");
  }

  CollectingJobSink read_file() const {
    std::ifstream in(path, std::ios::binary);
    CollectingJobSink sink;
    read_bacula_catalog(in, sink);
    return sink;
  }

  TempDir dir;
  std::string path = dir.file("bacula.db");
};

TEST_F(BaculaCatalogFormatTest, ReadsTheBackupJobsOldestFirstAndSkipsFailedOnes) {
  add_job(3, "2026-11-22 23:05:00");
  add_job(1, "2026-11-20 23:05:00");
  add_job(2, "2026-11-21 23:05:00", 'B', 'f');
  add_job(4, "2026-11-21 23:30:00", 'R');  // a restore: not a backup
  const auto sink = read_file();
  ASSERT_EQ(sink.jobs.size(), 2u);
  EXPECT_EQ(sink.jobs[0].tool_job_id, "files.1");
  EXPECT_EQ(sink.jobs[1].tool_job_id, "files.3");
  EXPECT_EQ(sink.jobs[0].client, "web-fd");
  EXPECT_EQ(sink.jobs[0].asset, "Full Set");
  EXPECT_EQ(sink.jobs[0].storage, "File");
  EXPECT_DOUBLE_EQ(sink.jobs[0].dedup_rate, 4);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "catalog row 2 (JobId 2)");
}

TEST_F(BaculaCatalogFormatTest, ACatalogInWalModeIsRead) {
  add_job(1, "2026-11-20 23:05:00");
  {
    DBAccess db(path, SQLITE_OPEN_READWRITE);
    db.execute_query("PRAGMA journal_mode=WAL");
  }
  const auto sink = read_file();
  EXPECT_EQ(sink.jobs.size(), 1u);
  EXPECT_TRUE(sink.skips.empty());
}

TEST_F(BaculaCatalogFormatTest, BadRowsAreSkippedAndTheOthersRead) {
  add_job(1, "2026-11-20 23:05:00", 'B', 'T', -7);
  add_job(2, "not a time");
  add_job(3, "2026-11-22 23:05:00");
  {
    DBAccess db(path, SQLITE_OPEN_READWRITE);
    db.execute_query("UPDATE Client SET Name = CAST(X'7765620a' AS TEXT)");  // a newline in the name
    db.execute_query("INSERT INTO Client VALUES (2, 'db-fd'); UPDATE Job SET ClientId = 2 WHERE JobId = 3");
  }
  const auto sink = read_file();
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_EQ(sink.jobs[0].client, "db-fd");
  ASSERT_EQ(sink.skips.size(), 2u);
}

TEST_F(BaculaCatalogFormatTest, ADatabaseWithoutAJobTableIsOneSkippedRecord) {
  {
    DBAccess db(path, SQLITE_OPEN_READWRITE);
    db.execute_query("DROP TABLE Job");
  }
  const auto sink = read_file();
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].second.find("not a Bacula SQLite catalog"), std::string::npos);
}

TEST(BaculaCatalogFormat, AnotherToolsOutputOrNothingIsOneSkippedRecord) {
  for (const std::string& input : {std::string("jobid=1\tjob=x\n"), std::string("SQLite format 3"),
                                   std::string()}) {
    std::istringstream in(input);
    CollectingJobSink sink;
    read_bacula_catalog(in, sink);
    EXPECT_TRUE(sink.jobs.empty());
    ASSERT_EQ(sink.skips.size(), 1u);
    EXPECT_EQ(sink.skips[0].first, "catalog");
  }
}

// Words separated by single blanks, so the README may break lines anywhere.
std::string collapsed(const std::string& text) {
  std::istringstream words(text);
  std::string word, out;
  while (words >> word) out += (out.empty() ? "" : " ") + word;
  return out;
}

TEST(BaculaCatalogFormat, TheReadmeQuotesTheQueryItRuns) {
  const std::string readme = TempDir::read(tsanomaly_test::source_dir() + "/README.md");
  EXPECT_NE(collapsed(readme).find(collapsed(bacula_catalog_sql::kBackupJobs)), std::string::npos);
}

}  // namespace
