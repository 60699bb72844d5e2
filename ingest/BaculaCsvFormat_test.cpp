#include "ingest/BaculaCsvFormat.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/CollectingJobSink.h"

namespace {

using tsanomaly_test::CollectingJobSink;

const std::string kHeader =
    "jobid,job,name,client,level,jobstatus,starttime,endtime,jobfiles,jobbytes,readbytes,fileset,pool\n";

// A row as `psql --csv` prints it: quotes only where a value needs them.
std::string psql_row(const std::string& jobid, const std::string& status = "T") {
  return jobid + ",files.2026-11-20_23.05.00_" + jobid + ",files,web-fd,I," + status +
         ",2026-11-20 23:05:00,2026-11-20 23:06:40,300,1048576,2097152,\"Full Set, \"\"daily\"\"\",File\n";
}

CollectingJobSink read(const std::string& input) {
  std::istringstream in(input);
  CollectingJobSink sink;
  read_bacula_csv(in, sink);
  return sink;
}

TEST(BaculaCsvFormat, ReadsPsqlCsvWithQuotedFields) {
  const auto sink = read(kHeader + psql_row("7") + psql_row("8"));
  ASSERT_EQ(sink.jobs.size(), 2u);
  EXPECT_TRUE(sink.skips.empty());
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool_job_id, "files.2026-11-20_23.05.00_7");
  EXPECT_EQ(job.asset, "Full Set, \"daily\"");
  EXPECT_EQ(job.schedule_type, "Incremental");
  EXPECT_DOUBLE_EQ(job.total_time_s, 100);
  EXPECT_DOUBLE_EQ(job.dedup_rate, 2);
}

TEST(BaculaCsvFormat, ReadsMysqlBatchOutputInAnyColumnOrder) {
  const std::string input =
      "JobId\tJobStatus\tJob\tName\tClient\tLevel\tStartTime\tEndTime\tJobFiles\tJobBytes\tReadBytes\tPool\n"
      "9\tT\tfiles.9\tfiles\tdb-fd\tF\t2026-11-20 01:00:00\t2026-11-20 01:10:00\t4000\t1024\t2048\tFull\n";
  const auto sink = read(input);
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_EQ(sink.jobs[0].client, "db-fd");
  EXPECT_EQ(sink.jobs[0].schedule_type, "Full");
  EXPECT_EQ(sink.jobs[0].storage, "Full");
  EXPECT_EQ(sink.jobs[0].asset, "");  // no file set column: the ingest default fills it
  EXPECT_DOUBLE_EQ(sink.jobs[0].total_time_s, 600);
}

TEST(BaculaCsvFormat, FailedJobsAreSkippedByJobId) {
  const auto sink = read(kHeader + psql_row("7", "E") + psql_row("8") + psql_row("9", "A"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 2u);
  EXPECT_EQ(sink.skips[0].first, "line 2 (JobId 7)");
  EXPECT_EQ(sink.skips[1].first, "line 4 (JobId 9)");
}

TEST(BaculaCsvFormat, AnotherToolsOutputIsRefusedAtItsHeader) {
  const auto sink = read("[{\"id\":\"4f2a\",\"time\":\"2026-11-20T01:00:00Z\"}]\n{\"x\":1}\n");
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "line 1");
  EXPECT_NE(sink.skips[0].second.find("no column jobid"), std::string::npos);
}

TEST(BaculaCsvFormat, TruncatedRowsAndOpenQuotesAreSkippedAndTheOthersRead) {
  const std::string row = psql_row("7");
  const auto sink = read(kHeader + row.substr(0, 40) + "\n" + "8,\"files\n" + psql_row("9"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 2u);
  EXPECT_NE(sink.skips[0].second.find("fields, the header 13"), std::string::npos);
  EXPECT_NE(sink.skips[1].second.find("quote"), std::string::npos);
}

TEST(BaculaCsvFormat, BadValuesAreSkippedNamingTheColumn) {
  std::string negative = psql_row("7");
  negative.replace(negative.find(",300,"), 5, ",-300,");
  std::string binary = psql_row("8");
  binary.replace(binary.find("web-fd"), 6, "web\xc3\x28");
  const auto sink = read(kHeader + negative + binary + psql_row("9"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 2u);
  EXPECT_NE(sink.skips[0].second.find("jobfiles"), std::string::npos);
  EXPECT_NE(sink.skips[1].second.find("client"), std::string::npos);
}

TEST(BaculaCsvFormat, ATenMegabyteRowIsSkipped) {
  const auto sink = read(kHeader + std::string(10 << 20, ',') + "\n" + psql_row("9"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "line 2");
}

TEST(BaculaCsvFormat, AHeaderWithoutRowsDeliversNothing) {
  const auto sink = read(kHeader);
  EXPECT_TRUE(sink.jobs.empty());
  EXPECT_TRUE(sink.skips.empty());
}

}  // namespace
