// The built tsanomalyctl ingest end to end: the line it prints, its exit
// codes, idempotence, the history, the order of a list, standard input,
// and what it says to a user who may not write the queue.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/ingest/IngestFixture.h"

using tsanomaly_test::IngestFixture;

namespace {

std::string job_line(const std::string& id, long long start) {
  return R"({"id": ")" + id + R"(", "client": "web1", "start": )" + std::to_string(start) + R"(, "end": )" +
         std::to_string(start + 60) + R"(, "files": 100, "size_kb": 2048, "transferred_kb": 64})" + "\n";
}

std::string snapshot(const std::string& id, const std::string& day) {
  return R"({"time":"2024-05-)" + day + R"(T02:00:00Z","paths":["/srv"],"hostname":"web1","id":")" + id +
         R"(","summary":{"backup_start":"2024-05-)" + day + R"(T02:00:00Z","backup_end":"2024-05-)" + day +
         R"(T02:00:30Z","files_new":1,"files_changed":2,"files_unmodified":7,"data_added":4096,)"
         R"("total_files_processed":10,"total_bytes_processed":409600}})";
}

class IngestToolTest : public IngestFixture {};

}  // namespace

TEST_F(IngestToolTest, SameOutputTwiceQueuesEachJobOnce) {
  const std::string file = write("jobs.jsonl", job_line("a", 1700000000) + job_line("b", 1700086400));
  const Run first = ingest("jsonl", {file});
  EXPECT_EQ(first.exit_code, 0) << first.err;
  EXPECT_EQ(first.out, "2 jobs queued, 0 already queued, 0 skipped\n");
  const Run second = ingest("jsonl", {file});
  EXPECT_EQ(second.exit_code, 0);
  EXPECT_EQ(second.out, "0 jobs queued, 2 already queued, 0 skipped\n");
  EXPECT_EQ(count("DATA_TO_PROCESS"), "2");
}

TEST_F(IngestToolTest, AsHistoryWritesAcceptedHistoryOnce) {
  const std::string file = write("jobs.jsonl", job_line("a", 1700000000) + job_line("b", 1700086400));
  const Run first = ingest("jsonl", {"--as-history", file});
  EXPECT_EQ(first.exit_code, 0) << first.err;
  EXPECT_EQ(first.out, "2 jobs added to the history, 0 already known, 0 skipped\n");
  EXPECT_EQ(column("SELECT DISTINCT MODE FROM HIST_DATA"), std::vector<std::string>{"1"});
  EXPECT_EQ(ingest("jsonl", {"--as-history", file}).out, "0 jobs added to the history, 2 already known, 0 skipped\n");
  EXPECT_EQ(ingest("jsonl", {file}).out, "0 jobs queued, 2 already queued, 0 skipped\n");
  EXPECT_EQ(count("HIST_DATA"), "2");
  EXPECT_EQ(count("DATA_TO_PROCESS"), "0");
}

TEST_F(IngestToolTest, SnapshotListIsQueuedOldestFirst) {
  const std::string file = write("snapshots.json", "[" + snapshot("cccccccc33", "03") + "," +
                                                       snapshot("aaaaaaaa11", "01") + "," +
                                                       snapshot("bbbbbbbb22", "02") + "]");
  const Run run = ingest("restic", {file});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(column("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS ORDER BY rowid"),
            (std::vector<std::string>{"restic:aaaaaaaa", "restic:bbbbbbbb", "restic:cccccccc"}));
  EXPECT_EQ(column("SELECT CLIENT FROM DATA_TO_PROCESS LIMIT 1"), std::vector<std::string>{"web1"});
}

TEST_F(IngestToolTest, SkippedRecordMeansExitOneAndTheOthersAreQueued) {
  const std::string file =
      write("jobs.jsonl", job_line("a", 1700000000) + "{\"id\": \"b\", \"files\": \x1b[31m\n" + job_line("c", 1700086400));
  const Run run = ingest("jsonl", {file});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "2 jobs queued, 0 already queued, 1 skipped\n");
  EXPECT_NE(run.err.find("jobs.jsonl: line 2: skipped: not JSON"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find('\x1b'), std::string::npos) << "escape reached the terminal";
  EXPECT_EQ(count("DATA_TO_PROCESS"), "2");
}

TEST_F(IngestToolTest, StandardInputIsReadWithoutFileOrForDash) {
  const std::string file = write("jobs.jsonl", job_line("a", 1700000000));
  const Run run = program({"/bin/sh", "-c", "\"$0\" ingest \"$1\" --format jsonl - < \"$2\"", TSANOMALYCTL_PATH, db, file});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  const Run bare = program({"/bin/sh", "-c", "\"$0\" ingest \"$1\" --format jsonl < /dev/null", TSANOMALYCTL_PATH, db});
  EXPECT_EQ(bare.exit_code, 1);
  EXPECT_NE(bare.err.find("standard input: input: skipped: holds no job (empty input)"), std::string::npos) << bare.err;
  EXPECT_EQ(count("DATA_TO_PROCESS"), "1");
}

TEST_F(IngestToolTest, OptionsFillAndOverrideTheKey) {
  const std::string file = write("jobs.jsonl", job_line("a", 1700000000));
  ASSERT_EQ(ingest("jsonl", {"--client", "db7", "--policy", "nightly", "--policy-type", "files", "--schedule", "daily",
                             "--storage", "nas", "--asset", "/srv", file})
                .exit_code,
            0);
  EXPECT_EQ(column("SELECT CLIENT || '|' || POLICY || '|' || POLICY_TYPE || '|' || SCHEDULE_NAME || '|' || "
                   "DESTINATION_STORAGE_NAME || '|' || ASSET_ID FROM DATA_TO_PROCESS"),
            std::vector<std::string>{"db7|nightly|files|daily|nas|/srv"});
}

TEST_F(IngestToolTest, TimeOptionDatesAJobWithoutTime) {
  const std::string file = write("jobs.jsonl", R"({"id": 9, "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 30})");
  ASSERT_EQ(ingest("jsonl", {"--time", "1700000000", file}).exit_code, 0);
  EXPECT_EQ(column("SELECT BACKUP_TIME || ' ' || START_TIME || ' ' || END_TIME || ' ' || TOTAL_TIME FROM DATA_TO_PROCESS"),
            std::vector<std::string>{"1699999970 1699999970 1700000000 30"});
}

TEST_F(IngestToolTest, BadArgumentsExitTwo) {
  EXPECT_EQ(tool({"ingest", db}).exit_code, 2);
  const Run unknown = ingest("tar", {});
  EXPECT_EQ(unknown.exit_code, 2);
  EXPECT_NE(unknown.err.find("unknown format 'tar' (jsonl, restic"), std::string::npos) << unknown.err;
  EXPECT_EQ(ingest("jsonl", {"--time", "soon"}).exit_code, 2);
}

TEST_F(IngestToolTest, MissingDatabaseOrInputExitsOne) {
  const Run missing = tool({"ingest", dir.file("none.db"), "--format", "jsonl", "/dev/null"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("no database"), std::string::npos) << missing.err;
  const Run unreadable = ingest("jsonl", {dir.file("absent.jsonl")});
  EXPECT_EQ(unreadable.exit_code, 1);
  EXPECT_NE(unreadable.err.find("cannot read"), std::string::npos) << unreadable.err;
}

TEST_F(IngestToolTest, UserWhoMayNotWriteIsToldWhoMay) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run the tool as another user";
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string file = write("jobs.jsonl", job_line("a", 1700000000));
  const Run run = program({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", TSANOMALYCTL_PATH,
                           "ingest", db, "--format", "jsonl", file});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_NE(run.err.find("cannot write '" + db + "'"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("tsanomaly-ingest"), std::string::npos) << run.err;
  EXPECT_EQ(count("DATA_TO_PROCESS"), "0");
}

TEST_F(IngestToolTest, NegativeOrHugeResticValuesAreSkipped) {
  const std::string summary =
      R"({"message_type":"summary","files_new":1,"files_changed":0,"files_unmodified":9,"data_added":DATA,)"
      R"("total_bytes_processed":40960,"total_duration":2.5,"snapshot_id":"ID"})";
  std::string text;
  for (const auto& [id, data] : {std::pair{"aaaa0001", "-4096"}, std::pair{"aaaa0002", "1e300"},
                                 std::pair{"aaaa0003", "4096"}}) {
    std::string line = summary;
    line.replace(line.find("DATA"), 4, data);
    line.replace(line.find("ID"), 2, id);
    text += line + "\n";
  }
  const Run run = ingest("restic", {write("restic.json", text)});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "1 jobs queued, 0 already queued, 2 skipped\n");
  EXPECT_NE(run.err.find("job aaaa0001: skipped: the data transferred is negative"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("job aaaa0002: skipped: the data transferred is implausibly large"), std::string::npos)
      << run.err;
  EXPECT_EQ(column("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS"), std::vector<std::string>{"restic:aaaa0003"});
}
