// The ingest core on real database files: completion by options and
// defaults, the checks every job passes, idempotence across the queue and
// the history, the order of a list, and the writer's refusals.
#include "ingest/IngestRun.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using tsanomaly_test::TempDir;

namespace {

IngestedJob sample_job(const std::string& id, std::int64_t start) {
  IngestedJob job;
  job.tool = "demo";
  job.tool_job_id = id;
  job.start_time = start;
  job.num_files = 10;
  job.image_size_kb = 1000.4;
  job.kb_transferred = 10.6;
  job.total_time_s = 30.4;
  job.dedup_rate = 94.379;
  return job;
}

// The jobs a test's reader reports, out of time order on purpose.
std::vector<IngestedJob> g_jobs;
void read_test_jobs(std::istream&, JobSink& sink) {
  for (const IngestedJob& job : g_jobs) sink.job(job);
}
void read_one_bad_record(std::istream&, JobSink& sink) { sink.skipped("record 1", "bad \x1b[31m bytes"); }

const IngestFormat kStream{"stream", read_test_jobs, false, ""};
const IngestFormat kList{"list", read_test_jobs, true, ""};

class IngestRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
    options.default_client = "thishost";
    options.default_end_time = 1700000000;
  }

  // One run over the test reader; answers {written, already known, skipped}.
  std::vector<long long> ingest(const IngestFormat& format, std::vector<IngestedJob> jobs) {
    g_jobs = std::move(jobs);
    QueueWriter writer(path, options.as_history);
    IngestRun run(format, options, writer, errors);
    std::istringstream in;
    run.read(in, "test");
    writer.flush();
    return {writer.written(), writer.already_known(), run.skipped_count()};
  }

  Rows rows(const std::string& sql) {
    DBAccess db(path, SQLITE_OPEN_READONLY);
    Rows result;
    db.read_data(sql, result);
    return result;
  }

  TempDir dir;
  std::string path = dir.file("anomaly.db");
  IngestOptions options;
  std::ostringstream errors;
};

}  // namespace

TEST_F(IngestRunTest, QueuesEveryColumnTheDetectorReads) {
  IngestedJob job = sample_job("abc", 1699990000);
  job.client = "web1";
  EXPECT_EQ(ingest(kStream, {job}), (std::vector<long long>{1, 0, 0}));
  const Rows queued = rows("SELECT * FROM DATA_TO_PROCESS");
  ASSERT_EQ(queued.size(), 1u);
  const auto& row = queued[0];
  EXPECT_EQ(std::string(row.at("BACKUP_ID")), "web1_1699990000");
  EXPECT_EQ(std::string(row.at("BACKUP_TIME")), "1699990000");
  EXPECT_EQ(std::string(row.at("START_TIME")), "1699990000");
  EXPECT_EQ(std::string(row.at("END_TIME")), "1699990030");
  EXPECT_EQ(std::string(row.at("TOTAL_TIME")), "30");
  EXPECT_EQ(std::string(row.at("CLIENT")), "web1");
  EXPECT_EQ(std::string(row.at("POLICY")), "demo");
  EXPECT_EQ(std::string(row.at("POLICY_TYPE")), "demo");
  EXPECT_EQ(std::string(row.at("APP_TYPE")), "demo");
  EXPECT_EQ(std::string(row.at("SCHEDULE_TYPE")), "FULL");
  EXPECT_EQ(std::string(row.at("SCHEDULE_NAME")), "default");
  EXPECT_EQ(std::string(row.at("DESTINATION_STORAGE_NAME")), "NA");
  EXPECT_EQ(std::string(row.at("ASSET_ID")), "NA");
  EXPECT_EQ(std::string(row.at("NUM_FILES")), "10");
  EXPECT_EQ(std::string(row.at("IMAGE_SIZE")), "1000.0");
  EXPECT_EQ(std::string(row.at("KB_TRANSFERRED")), "11.0");
  EXPECT_EQ(std::string(row.at("DEDUP_RATE")), "94.38");
  EXPECT_EQ(std::string(row.at("JOB_ID")), std::to_string(ingest_job_number("abc")));
  EXPECT_EQ(std::string(row.at("PARENT_JOB_ID")), "0");
  EXPECT_EQ(std::string(row.at("STREAM_NUMBER")), "0");
  EXPECT_EQ(std::string(row.at("USER_IDENTIFIED_CLUSTER")), "-1");
  EXPECT_EQ(std::string(row.at("PROCESSED_STATUS")), "0");
  EXPECT_EQ(std::string(row.at("UNIQUE_KEY")), "demo:abc");
  EXPECT_EQ(std::string(rows("SELECT typeof(JOB_ID) AS T, typeof(NUM_FILES) AS N FROM DATA_TO_PROCESS")[0].at("T")), "integer");
}

TEST_F(IngestRunTest, OptionsOverrideTheToolAndDefaultsFillTheRest) {
  IngestedJob job = sample_job("1", 100);
  job.client = "from-tool";
  job.storage = "tool-storage";
  options.client = "operator-client";
  options.policy = "p";
  options.policy_type = "pt";
  options.schedule_name = "s";
  options.asset = "a";
  complete_ingested_job(job, options);
  EXPECT_EQ(job.client, "operator-client");
  EXPECT_EQ(job.policy, "p");
  EXPECT_EQ(job.policy_type, "pt");
  EXPECT_EQ(job.schedule_name, "s");
  EXPECT_EQ(job.storage, "tool-storage");
  EXPECT_EQ(job.asset, "a");

  IngestedJob bare = sample_job("2", 0);
  bare.start_time.reset();
  complete_ingested_job(bare, IngestOptions{.default_end_time = 1700000000, .default_client = "thishost"});
  EXPECT_EQ(bare.client, "thishost");
  EXPECT_EQ(bare.end_time, 1700000000);
  EXPECT_EQ(bare.start_time, 1700000000 - 30);
}

TEST_F(IngestRunTest, SameJobTwiceIsQueuedOnce) {
  EXPECT_EQ(ingest(kStream, {sample_job("a", 1), sample_job("b", 2)}), (std::vector<long long>{2, 0, 0}));
  EXPECT_EQ(ingest(kStream, {sample_job("a", 1), sample_job("c", 3)}), (std::vector<long long>{1, 1, 0}));
  EXPECT_EQ(std::string(rows("SELECT COUNT(*) AS N FROM DATA_TO_PROCESS")[0].at("N")), "3");
}

TEST_F(IngestRunTest, JobAlreadyInTheHistoryIsNotQueuedAgain) {
  options.as_history = true;
  EXPECT_EQ(ingest(kStream, {sample_job("a", 1)}), (std::vector<long long>{1, 0, 0}));
  EXPECT_EQ(std::string(rows("SELECT MODE FROM HIST_DATA")[0].at("MODE")), "1");
  options.as_history = false;
  EXPECT_EQ(ingest(kStream, {sample_job("a", 1)}), (std::vector<long long>{0, 1, 0}));
  EXPECT_EQ(std::string(rows("SELECT COUNT(*) AS N FROM DATA_TO_PROCESS")[0].at("N")), "0");
  // Nor a queued job into the history.
  ingest(kStream, {sample_job("q", 1)});
  options.as_history = true;
  EXPECT_EQ(ingest(kStream, {sample_job("q", 1)}), (std::vector<long long>{0, 1, 0}));
}

TEST_F(IngestRunTest, ListIsQueuedOldestFirstAndStreamAsGiven) {
  ingest(kList, {sample_job("late", 300), sample_job("early", 100), sample_job("middle", 200)});
  Rows order = rows("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS ORDER BY rowid");
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(std::string(order[0].at("UNIQUE_KEY")), "demo:early");
  EXPECT_EQ(std::string(order[2].at("UNIQUE_KEY")), "demo:late");
  ingest(kStream, {sample_job("s2", 300), sample_job("s1", 100)});
  order = rows("SELECT UNIQUE_KEY FROM DATA_TO_PROCESS ORDER BY rowid");
  EXPECT_EQ(std::string(order[3].at("UNIQUE_KEY")), "demo:s2");
}

TEST_F(IngestRunTest, BadValuesAreSkippedAndNamed) {
  std::vector<IngestedJob> jobs;
  const auto bad = [&](const std::string& id, auto spoil) {
    IngestedJob job = sample_job(id, 1000);
    spoil(job);
    jobs.push_back(job);
  };
  bad("neg", [](IngestedJob& j) { j.num_files = -1; });
  bad("nan", [](IngestedJob& j) { j.image_size_kb = std::nan(""); });
  bad("huge", [](IngestedJob& j) { j.kb_transferred = 1e300; });
  bad("inf", [](IngestedJob& j) { j.total_time_s = INFINITY; });
  bad("ratio", [](IngestedJob& j) { j.dedup_rate = 1e9; });
  bad("latin1", [](IngestedJob& j) { j.client = "caf\xe9"; });
  bad("ctrl", [](IngestedJob& j) { j.policy = "a\x1b[2Jb"; });
  bad("long", [](IngestedJob& j) { j.asset = std::string(300, 'a'); });
  bad("", [](IngestedJob&) {});
  bad("ms", [](IngestedJob& j) { j.start_time = 1700000000000000; });
  bad("order", [](IngestedJob& j) { j.end_time = 10; });
  bad("max", [](IngestedJob& j) { j.start_time = INT64_MAX; });
  bad("min", [](IngestedJob& j) {
    j.start_time.reset();
    j.end_time = INT64_MIN;
  });
  jobs.push_back(sample_job("good", 1000));
  EXPECT_EQ(ingest(kStream, jobs), (std::vector<long long>{1, 0, 13}));
  const std::string text = errors.str();
  for (const char* expected : {"job neg: skipped: the file count is negative", "job nan: skipped: the size is not a finite",
                               "job huge: skipped: the data transferred is implausibly large",
                               "job inf: skipped: the duration", "job ratio: skipped: the deduplication ratio",
                               "job latin1: skipped: the client is not printable UTF-8",
                               "job ctrl: skipped: the policy is not printable", "job long: skipped: the asset is longer",
                               "skipped: the job id is empty", "job ms: skipped: a time is outside",
                               "job order: skipped: the job ends before it starts",
                               "job max: skipped: a time is outside", "job min: skipped: a time is outside"}) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  }
  EXPECT_EQ(std::string(rows("SELECT COUNT(*) AS N FROM DATA_TO_PROCESS")[0].at("N")), "1");
}

TEST_F(IngestRunTest, SkipMessagesAreEscapedForTheTerminal) {
  const IngestFormat bad{"bad", read_one_bad_record, false, ""};
  ingest(bad, {});
  EXPECT_EQ(errors.str(), "tsanomalyctl ingest: test: record 1: skipped: bad \\x1b[31m bytes\n");
}

TEST_F(IngestRunTest, EmptyInputIsSkipped) {
  EXPECT_EQ(ingest(kStream, {}), (std::vector<long long>{0, 0, 1}));
  EXPECT_NE(errors.str().find("empty input"), std::string::npos);
}

TEST_F(IngestRunTest, WriterRefusesWhatIsNotADetectorDatabase) {
  EXPECT_THROW(QueueWriter(dir.file("missing.db"), false), std::runtime_error);
  TempDir::write(dir.file("text.db"), "not sqlite");
  EXPECT_THROW(QueueWriter(dir.file("text.db"), false), std::runtime_error);
  { DBAccess other(dir.file("other.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE); }
  try {
    QueueWriter writer(dir.file("other.db"), false);
    FAIL() << "an empty database was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("tsanomalyctl init"), std::string::npos) << e.what();
  }
}

TEST_F(IngestRunTest, ManyJobsSpanSeveralBatches) {
  std::vector<IngestedJob> jobs;
  for (int i = 0; i < 1200; ++i) jobs.push_back(sample_job(std::to_string(i), i));
  EXPECT_EQ(ingest(kStream, jobs), (std::vector<long long>{1200, 0, 0}));
  EXPECT_EQ(std::string(rows("SELECT COUNT(*) AS N FROM DATA_TO_PROCESS")[0].at("N")), "1200");
}
