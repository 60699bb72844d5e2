// The restic reader on restic 0.14's backup stream, on a snapshot list with
// and without the summary newer restic records, and on bad input.
#include "ingest/ResticFormat.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/CollectedJobs.h"

using tsanomaly_test::CollectedJobs;

namespace {

const std::string kStatus =
    R"({"message_type":"status","percent_done":1,"total_files":20,"files_done":20,"total_bytes":20000,)"
    R"("bytes_done":20000,"current_files":["/src/f15"]})";
const std::string kSummary =
    R"({"message_type":"summary","files_new":2,"files_changed":3,"files_unmodified":15,"dirs_new":1,)"
    R"("dirs_changed":0,"dirs_unmodified":0,"data_blobs":20,"tree_blobs":2,"data_added":10240,)"
    R"("total_files_processed":20,"total_bytes_processed":204800,"total_duration":0.312665797,"snapshot_id":"33a5acb7"})";

std::string snapshot(const std::string& id, const std::string& start, const std::string& summary_members) {
  return R"({"time":")" + start + R"(","tree":"faa6","paths":["/srv"],"hostname":"web1","username":"root","id":")" +
         id + R"(","short_id":")" + id.substr(0, 8) + "\"" +
         (summary_members.empty() ? "" : R"(,"summary":{)" + summary_members + "}") + "}";
}

const std::string kSnapshotSummary =
    R"("backup_start":"2024-05-01T02:00:00.25Z","backup_end":"2024-05-01T02:01:40.5Z","files_new":1,)"
    R"("files_changed":1,"files_unmodified":8,"data_added":0,"total_files_processed":10,"total_bytes_processed":1048576)";

CollectedJobs read(const std::string& text) { return CollectedJobs::read(read_restic, text); }

}  // namespace

TEST(ResticFormat, SummaryOfABackupStreamIsAJob) {
  const CollectedJobs sink = read(kStatus + "\n" + kStatus + "\n" + kSummary + "\n");
  ASSERT_TRUE(sink.skips.empty()) << sink.skips[0].why;
  ASSERT_EQ(sink.jobs.size(), 1u);
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool, "restic");
  EXPECT_EQ(job.tool_job_id, "33a5acb7");
  EXPECT_EQ(job.num_files, 20);
  EXPECT_EQ(job.image_size_kb, 200);
  EXPECT_EQ(job.kb_transferred, 10);
  EXPECT_NEAR(job.total_time_s, 0.3127, 1e-4);
  EXPECT_EQ(job.dedup_rate, 20);
  EXPECT_FALSE(job.start_time.has_value());
  EXPECT_FALSE(job.end_time.has_value());
  EXPECT_TRUE(job.client.empty());
}

TEST(ResticFormat, NewerSummaryCarriesItsTimesAndAFullId) {
  const std::string summary = R"({"message_type":"summary","backup_start":"2024-05-01T02:00:00Z",)"
                              R"("backup_end":"2024-05-01T02:00:10Z","files_new":1,"files_changed":0,)"
                              R"("files_unmodified":0,"data_added":1024,"total_bytes_processed":1024,)"
                              R"("total_duration":10.2,"snapshot_id":"33a5acb761161375c001ed91244499a1"})";
  const CollectedJobs sink = read(summary);
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_EQ(sink.jobs[0].tool_job_id, "33a5acb7");
  EXPECT_EQ(sink.jobs[0].start_time, 1714528800);
  EXPECT_EQ(sink.jobs[0].end_time, 1714528810);
}

TEST(ResticFormat, StreamWithoutSummaryIsAFailedJob) {
  const CollectedJobs sink = read(kStatus + "\n" + kStatus + "\n");
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("did not finish"), std::string::npos);
}

TEST(ResticFormat, ExitErrorIsNamed) {
  const CollectedJobs sink = read(kStatus + "\n" + R"({"message_type":"exit_error","code":12,"message":"wrong password"})");
  ASSERT_EQ(sink.skips.size(), 2u);
  EXPECT_NE(sink.skips[0].why.find("wrong password"), std::string::npos);
}

TEST(ResticFormat, DryRunSummaryHasNoSnapshotAndIsSkipped) {
  std::string dry = kSummary;
  dry.erase(dry.find(",\"snapshot_id\""), std::string(",\"snapshot_id\":\"33a5acb7\"").size());
  const CollectedJobs sink = read(dry);
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("dry run"), std::string::npos);
}

TEST(ResticFormat, BadSummaryValuesAreSkipped) {
  for (const auto& [from, to, reason] : {std::tuple{"\"data_added\":10240", "\"data_added\":\"lots\"", "data_added"},
                                         std::tuple{"\"files_new\":2,", "", "files_new"},
                                         std::tuple{"\"total_duration\":0.312665797", "\"total_duration\":null",
                                                    "total_duration"}}) {
    std::string bad = kSummary;
    bad.replace(bad.find(from), std::string(from).size(), to);
    const CollectedJobs sink = read(bad);
    EXPECT_TRUE(sink.jobs.empty()) << bad;
    ASSERT_FALSE(sink.skips.empty()) << bad;
    EXPECT_NE(sink.skips[0].why.find(reason), std::string::npos) << sink.skips[0].why;
  }
}

TEST(ResticFormat, TruncatedOrForeignLinesAreSkippedAndTheSummaryKept) {
  const CollectedJobs sink = read(kStatus.substr(0, 30) + "\nArchive name: x\n{\"some\": 1}\n" + kSummary + "\n");
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 3u);
  EXPECT_EQ(sink.skips[0].where, "line 1");
  EXPECT_NE(sink.skips[2].why.find("no message_type"), std::string::npos);
}

TEST(ResticFormat, JsonlUnderTheWrongFormatIsNoSummary) {
  const CollectedJobs sink = read(R"({"id": 1, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1})");
  EXPECT_TRUE(sink.jobs.empty());
  EXPECT_EQ(sink.skips.size(), 2u);
}

TEST(ResticFormat, SnapshotWithSummaryIsAJobWithTimesAndHost) {
  const CollectedJobs sink =
      read("[" + snapshot("4f2a1c9e0011", "2024-05-01T02:00:00Z", kSnapshotSummary) + "]");
  ASSERT_TRUE(sink.skips.empty()) << sink.skips[0].why;
  ASSERT_EQ(sink.jobs.size(), 1u);
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool_job_id, "4f2a1c9e");
  EXPECT_EQ(job.client, "web1");
  EXPECT_EQ(job.start_time, 1714528800);
  EXPECT_EQ(job.end_time, 1714528901);
  EXPECT_NEAR(job.total_time_s, 100.25, 1e-9);
  EXPECT_EQ(job.num_files, 10);
  EXPECT_EQ(job.image_size_kb, 1024);
  EXPECT_EQ(job.kb_transferred, 0);
  EXPECT_EQ(job.dedup_rate, 1024);  // nothing added: the processed size in kilobytes
}

TEST(ResticFormat, SnapshotWithoutSummaryIsSkippedWithTheReason) {
  const CollectedJobs sink = read("[" + snapshot("aaaaaaaa11", "2024-05-01T02:00:00Z", "") + ",\n" +
                                  snapshot("bbbbbbbb22", "2024-05-02T02:00:00Z", kSnapshotSummary) + "]");
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].where, "snapshot aaaaaaaa");
  EXPECT_NE(sink.skips[0].why.find("no summary"), std::string::npos);
}

TEST(ResticFormat, BadSnapshotsAreSkipped) {
  std::string bad_time = kSnapshotSummary;
  bad_time.replace(bad_time.find("2024-05-01T02:01:40.5Z"), 22, "yesterday");
  const CollectedJobs sink = read("[" + snapshot("cccccccc", "x", bad_time) + R"(, {"time": "x"}, 7])");
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 3u);
  EXPECT_NE(sink.skips[0].why.find("time stamp"), std::string::npos);
  EXPECT_EQ(sink.skips[1].where, "snapshot #2");
}

TEST(ResticFormat, TruncatedSnapshotListIsSkipped) {
  const CollectedJobs sink = read("[" + snapshot("dddddddd", "x", kSnapshotSummary).substr(0, 80));
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("not restic's JSON array"), std::string::npos);
}

TEST(ResticFormat, OversizedSnapshotListIsRefusedWhole) {
  const CollectedJobs sink = read("[" + std::string(65 << 20, ' ') + "]");
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("longer than"), std::string::npos);
}

TEST(ResticFormat, EmptyInputReportsNothing) {
  EXPECT_TRUE(read("").skips.empty());
  EXPECT_TRUE(read("   \n").jobs.empty());
}

TEST(ResticFormat, NonUtf8IsSkippedLineByLineAndRefusedInAList) {
  std::string latin1 = kSummary;
  latin1.replace(latin1.find("33a5acb7"), 8, "33a5\xe9\xff");
  const CollectedJobs stream = read(latin1 + "\n" + kSummary + "\n");
  ASSERT_EQ(stream.jobs.size(), 1u);
  ASSERT_EQ(stream.skips.size(), 1u);
  EXPECT_NE(stream.skips[0].why.find("not restic's JSON"), std::string::npos);
  const CollectedJobs list = read("[" + snapshot("eeeeeeee", "x", kSnapshotSummary).replace(30, 1, "\xff") + "]");
  EXPECT_TRUE(list.jobs.empty());
  ASSERT_EQ(list.skips.size(), 1u);
  EXPECT_EQ(list.skips[0].where, "the snapshot list");
}
