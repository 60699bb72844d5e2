// Eight ingest processes at once while a detection pass works through a
// queue: every job arrives exactly once, and no process fails for want of
// the write lock (each waits at most the busy timeout, then would fail).
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/ingest/IngestFixture.h"

using tsanomaly_test::ChildProcess;
using tsanomaly_test::IngestFixture;

namespace {

constexpr int kProcesses = 8;
constexpr int kJobsPerProcess = 600;

std::string job_line(int owner, int j) {
  return R"({"id": ")" + std::to_string(owner) + "-" + std::to_string(j) + R"(", "client": "c)" +
         std::to_string(owner) + R"(", "start": )" + std::to_string(1700000000 + j * 60) +
         R"(, "seconds": 30, "files": 10, "size_kb": 100, "transferred_kb": 5})" + "\n";
}

// Process p's jobs: its own, and the first third of process p + 1's, so two
// processes race to queue those.
std::string jobs_of(int p) {
  std::string text;
  for (int j = 0; j < kJobsPerProcess; ++j) {
    text += job_line(p, j);
    if (j < kJobsPerProcess / 3) text += job_line((p + 1) % kProcesses, j);
  }
  return text;
}

class IngestConcurrencyTest : public IngestFixture {};

}  // namespace

TEST_F(IngestConcurrencyTest, EightWritersDuringAPassQueueEveryJobOnce) {
  ASSERT_EQ(tool({"simulate", db, "--workloads", "50", "--days", "35", "--pending", "1500"}).exit_code, 0);
  std::set<std::string> expected;
  std::vector<std::string> files;
  for (int p = 0; p < kProcesses; ++p) {
    files.push_back(write("jobs" + std::to_string(p) + ".jsonl", jobs_of(p)));
    for (int j = 0; j < kJobsPerProcess; ++j) expected.insert("jsonl:" + std::to_string(p) + "-" + std::to_string(j));
  }
  ChildProcess pass({TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(), "-database_file_name",
                     "anomaly.db", "-log_path", dir.path()});
  pass.start();
  std::vector<std::unique_ptr<ChildProcess>> writers;
  const auto started = std::chrono::steady_clock::now();
  for (const std::string& file : files) {
    writers.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{TSANOMALYCTL_PATH, "ingest", db, "--format", "jsonl", file}));
    writers.back()->start();
  }
  int queued = 0;
  int already = 0;
  for (auto& writer : writers) {
    const int status = writer->wait(std::chrono::seconds(60));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << writer->err();
    queued += std::stoi(writer->out());
    const std::size_t comma = writer->out().find(", ");
    if (comma != std::string::npos) already += std::stoi(writer->out().substr(comma + 2));
    std::cout << "writer done after "
              << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count()
              << " ms: " << writer->out();
  }
  EXPECT_EQ(pass.wait(std::chrono::seconds(60)), 0) << pass.err();
  EXPECT_EQ(queued, static_cast<int>(expected.size()));
  EXPECT_EQ(already, kProcesses * (kJobsPerProcess / 3));
  const std::vector<std::string> keys = column(
      "SELECT UNIQUE_KEY FROM DATA_TO_PROCESS WHERE UNIQUE_KEY LIKE 'jsonl:%' UNION ALL "
      "SELECT UNIQUE_KEY FROM HIST_DATA WHERE UNIQUE_KEY LIKE 'jsonl:%'");
  EXPECT_EQ(keys.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()), expected);
}
