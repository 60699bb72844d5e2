// `tsanomalyctl report` on large databases, as a child process whose peak
// memory the kernel reports: payloads are read for the cards shown only and
// each chart covers a bounded window, so neither memory nor the page grows
// with the whole table. The bounds are generous ceilings, not timings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using tsanomaly_test::TempDir;

namespace {

constexpr long kMemoryCeilingKb = 100 * 1024;
constexpr off_t kPageCeilingBytes = 5 * 1024 * 1024;
constexpr long long kDay = 86400;
constexpr long long kLastBackup = 1700000000;

struct ReportRun {
  int exit_code = -1;
  long peak_kb = 0;
};

// Runs tsanomalyctl report with its output discarded; peak RSS from wait4.
ReportRun report(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {TSANOMALYCTL_PATH, "report"};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss};
}

off_t size_of(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

class ReportScaleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db.execute_query("PRAGMA synchronous = OFF");
    db.execute_query(anomaly_schema::anomaly_db_sql());
  }

  static std::string payload(const std::string& client, const std::string& padding) {
    return "{\"Attributes\":{\"clientName\":\"" + client + "\",\"policyName\":\"pol\",\"summary\":\"Backup files "
           "count,Anomaly image size\",\"score\":\"3.25\",\"anomalyBackupFilesCount\":\"9000 (Usual: 4000 - 4500)\","
           "\"anomalyImageSize\":\"1.50 MB (Usual: 0.98 MB - 1.17 MB)\",\"padding\":\"" + padding + "\"}}";
  }

  // A workload's reported job: queued (processed) and its anomaly row.
  void anomaly(int workload, int n, const std::string& padding = "") {
    const std::string client = "client-" + std::to_string(workload);
    const std::string key = client + "-job-" + std::to_string(n);
    Statement job(db.handle,
                  "INSERT INTO DATA_TO_PROCESS VALUES ('img', ?, ?, 'pol', 'Standard', 'FULL', 'daily', 'app', 9000, "
                  "1572864, 1, 0, 1024, 0, 600, 600, 2.5, 0, 'stu1', 0, 'vm', ?, 1)");
    job.bind(1, static_cast<double>(kLastBackup + n));
    job.bind(2, client);
    job.bind(3, key);
    db.execute_query_prepared(job);
    Statement row(db.handle, "INSERT INTO ANOMALY_DATA VALUES (?, ?, 0, ?, ?, ?)");
    row.bind(1, key);
    row.bind(2, payload(client, padding));
    row.bind(3, key);
    row.bind(4, client);
    row.bind(5, static_cast<double>(kLastBackup + n));
    db.execute_query_prepared(row);
  }

  // days daily history rows of the workload, up to its reported jobs.
  void history(int workload, int days) {
    Statement st(db.handle,
                 "INSERT INTO HIST_DATA VALUES ('img', ?, ?, 'pol', 'Standard', 'FULL', 'daily', 'app', ?, 1048576, 1, "
                 "0, 1024, 0, 600, 600, 2.5, 1, -1, 'stu1', 0, 'vm', ?)");
    for (int d = 1; d <= days; ++d) {
      st.bind(1, static_cast<double>(kLastBackup - d * kDay));
      st.bind(2, "client-" + std::to_string(workload));
      st.bind(3, 4000 + d % 500);
      st.bind(4, "h-" + std::to_string(workload) + "-" + std::to_string(d));
      db.execute_query_prepared(st);
      st.reset();
    }
  }

  TempDir dir;
  std::string path = dir.file("anomaly.db");
  DBAccess db{path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
};

// AddressSanitizer's shadow memory and quarantine make a process's peak RSS
// say nothing about what the program itself keeps; the bound is checked in
// the ordinary build only.
void expect_memory_bound(long peak_kb, long ceiling_kb, const char* what) {
#ifdef TSANOMALY_SANITIZER_BUILD
  (void)peak_kb;
  (void)ceiling_kb;
  (void)what;
#else
  EXPECT_LT(peak_kb, ceiling_kb) << what;
#endif
}

}  // namespace

TEST_F(ReportScaleTest, LargePayloadsAreReadOnlyForTheCardsShown) {
  const std::string padding(4 * 1024 * 1024, 'p');
  db.begin_transaction();
  for (int n = 0; n < 30; ++n) anomaly(n, n, padding);
  db.commit_transaction();
  const ReportRun run = report({path, "-o", dir.file("report.html"), "--limit", "1"});
  EXPECT_EQ(run.exit_code, 0);
  expect_memory_bound(run.peak_kb, kMemoryCeilingKb, "30 payloads of 4 MB");
}

TEST_F(ReportScaleTest, ThousandsOfAnomaliesWithLongHistoriesGiveABoundedPage) {
  db.begin_transaction();
  for (int workload = 0; workload < 100; ++workload) {
    history(workload, 980);
    for (int n = 0; n < 19; ++n) anomaly(workload, n);
  }
  db.commit_transaction();
  const std::string page = dir.file("report.html");
  const ReportRun run = report({path, "-o", page, "--limit", "100"});
  EXPECT_EQ(run.exit_code, 0);
  expect_memory_bound(run.peak_kb, kMemoryCeilingKb, "1900 anomalies, 98,000 history rows");
  EXPECT_GT(size_of(page), 0);
  EXPECT_LT(size_of(page), kPageCeilingBytes);
}

TEST_F(ReportScaleTest, OneWorkloadWithHundredsOfThousandsOfJobsGivesABoundedReport) {
  anomaly(0, 0);
  // A job every 30 s over the 180 days the cards chart.
  db.execute_query(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300000) INSERT INTO HIST_DATA "
      "SELECT 'img', " + std::to_string(kLastBackup) + " - 30 * i, 'client-0', 'pol', 'Standard', 'FULL', 'daily', "
      "'app', 4000 + i % 500, 1048576, 1, 0, 1024, 0, 600, 600, 2.5, 1, -1, 'stu1', 0, 'vm', 'flood-' || i FROM n");
  const std::string page = dir.file("report.html");
  const ReportRun run = report({path, "-o", page, "--limit", "10"});
  EXPECT_EQ(run.exit_code, 0);
  expect_memory_bound(run.peak_kb, kMemoryCeilingKb, "one workload of 300,000 history rows");
  EXPECT_GT(size_of(page), 0);
  EXPECT_LT(size_of(page), 1024 * 1024);
}
