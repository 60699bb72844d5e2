// The jsonl reader on good lines and on every kind of bad one.
#include "ingest/JsonlFormat.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/CollectedJobs.h"

using tsanomaly_test::CollectedJobs;

namespace {

const std::string kFullLine =
    R"({"id": "j-7", "tool": "kopia", "client": "web1", "policy": "home", "policy_type": "files", )"
    R"("schedule_type": "INCR", "schedule": "nightly", "storage": "s3", "asset": "/home", "start": 1700000000, )"
    R"("end": 1700000090, "files": 1200, "size_kb": 2048.5, "transferred_kb": 64, "seconds": 88, "dedup_ratio": 31.5})";

CollectedJobs read(const std::string& text) { return CollectedJobs::read(read_jsonl, text); }

// One bad line between two good ones: the bad one is skipped and named by
// its line number, the good ones still arrive.
void expect_only_middle_line_skipped(const std::string& bad, const std::string& reason_part) {
  const std::string good1 = R"({"id": 1, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})";
  const std::string good3 = R"({"id": 3, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})";
  const CollectedJobs sink = read(good1 + "\n" + bad + "\n" + good3 + "\n");
  ASSERT_EQ(sink.jobs.size(), 2u) << bad;
  EXPECT_EQ(sink.jobs[0].tool_job_id, "1");
  EXPECT_EQ(sink.jobs[1].tool_job_id, "3");
  ASSERT_EQ(sink.skips.size(), 1u) << bad;
  EXPECT_EQ(sink.skips[0].where.rfind("line 2", 0), 0u) << sink.skips[0].where;
  EXPECT_NE(sink.skips[0].why.find(reason_part), std::string::npos) << sink.skips[0].why;
}

}  // namespace

TEST(JsonlFormat, ReadsEveryMember) {
  const CollectedJobs sink = read(kFullLine + "\n");
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_TRUE(sink.skips.empty());
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool_job_id, "j-7");
  EXPECT_EQ(job.tool, "kopia");
  EXPECT_EQ(job.client, "web1");
  EXPECT_EQ(job.policy, "home");
  EXPECT_EQ(job.policy_type, "files");
  EXPECT_EQ(job.schedule_type, "INCR");
  EXPECT_EQ(job.schedule_name, "nightly");
  EXPECT_EQ(job.storage, "s3");
  EXPECT_EQ(job.asset, "/home");
  EXPECT_EQ(job.start_time, 1700000000);
  EXPECT_EQ(job.end_time, 1700000090);
  EXPECT_EQ(job.num_files, 1200);
  EXPECT_EQ(job.image_size_kb, 2048.5);
  EXPECT_EQ(job.kb_transferred, 64);
  EXPECT_EQ(job.total_time_s, 88);
  EXPECT_EQ(job.dedup_rate, 31.5);
}

TEST(JsonlFormat, DerivesDurationAndRatioWhenAbsent) {
  const CollectedJobs sink =
      read(R"({"id": "a", "start": 100, "end": 160, "files": 3, "size_kb": 2048, "transferred_kb": 0})");
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_EQ(sink.jobs[0].tool, "jsonl");
  EXPECT_EQ(sink.jobs[0].total_time_s, 60);
  // Nothing added: the processed size in kilobytes.
  EXPECT_EQ(sink.jobs[0].dedup_rate, 2048);
}

TEST(JsonlFormat, ReadsWindowsLineEndsAndSkipsBlankLines) {
  const CollectedJobs sink = read("\r\n  \n" + kFullLine + "\r\n\n");
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_TRUE(sink.skips.empty());
}

TEST(JsonlFormat, LastLineWithoutNewlineIsRead) {
  EXPECT_EQ(read(kFullLine).jobs.size(), 1u);
}

TEST(JsonlFormat, TruncatedJsonIsSkipped) {
  expect_only_middle_line_skipped(R"({"id": 2, "files": 1, "size_kb)", "not JSON");
}

TEST(JsonlFormat, AnotherToolsOutputIsSkipped) {
  expect_only_middle_line_skipped(R"({"message_type":"status","percent_done":0.5})", "no \"id\" member");
  expect_only_middle_line_skipped("Archive name: host-2024-01-01", "not JSON");
  expect_only_middle_line_skipped("[1, 2, 3]", "not a JSON object");
}

TEST(JsonlFormat, NonNumericFeatureIsSkipped) {
  expect_only_middle_line_skipped(R"({"id": 2, "files": "many", "size_kb": 1, "transferred_kb": 1, "seconds": 1})",
                                  "\"files\" is not a number");
  expect_only_middle_line_skipped(R"({"id": 2, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1, "start": 1.5})",
                                  "\"start\" is not a whole number");
}

TEST(JsonlFormat, MissingFeatureIsSkipped) {
  expect_only_middle_line_skipped(R"({"id": 2, "files": 1, "transferred_kb": 1, "seconds": 1})", "size_kb");
  expect_only_middle_line_skipped(R"({"id": 2, "files": 1, "size_kb": 1, "transferred_kb": 1})", "seconds");
}

TEST(JsonlFormat, WrongTypedNameIsSkipped) {
  expect_only_middle_line_skipped(R"({"id": 2, "client": 7, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})",
                                  "\"client\" is not a string");
  expect_only_middle_line_skipped(R"({"id": [2], "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})",
                                  "\"id\" is not a string or a whole number");
}

TEST(JsonlFormat, NonUtf8LineIsSkipped) {
  expect_only_middle_line_skipped("{\"id\": 2, \"client\": \"caf\xe9\", \"files\": 1, \"size_kb\": 1, "
                                  "\"transferred_kb\": 1, \"seconds\": 1}",
                                  "not JSON");
}

TEST(JsonlFormat, NulByteIsSkipped) {
  expect_only_middle_line_skipped(std::string("{\"id\": 2}\0{\"id\": 9}", 19), "NUL");
}

TEST(JsonlFormat, FailedJobIsSkippedAndNamed) {
  const std::string failed = R"({"id": "n-2", "status": "failed", "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})";
  expect_only_middle_line_skipped(failed, "failed");
  EXPECT_NE(read(failed).skips.at(0).where.find("n-2"), std::string::npos);
}

TEST(JsonlFormat, TenMegabyteLineIsSkippedWithoutStoppingTheRest) {
  expect_only_middle_line_skipped("{\"id\": \"" + std::string(10 << 20, 'x') + "\"}", "longer than");
}

TEST(JsonlFormat, EmptyInputReportsNothing) {
  const CollectedJobs sink = read("");
  EXPECT_TRUE(sink.jobs.empty());
  EXPECT_TRUE(sink.skips.empty());
}

TEST(JsonlFormat, TimesAtTheIntegerLimitsDoNotOverflow) {
  const CollectedJobs sink = read(R"({"id": 1, "start": -9223372036854775808, "end": 9223372036854775807, )"
                                  R"("files": 1, "size_kb": 1, "transferred_kb": 1})");
  ASSERT_EQ(sink.jobs.size(), 1u);  // the core refuses the times
  EXPECT_GT(sink.jobs[0].total_time_s, 1e18);
}
