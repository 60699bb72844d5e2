// The shipped hook bacula-runscript on its failure paths: it says what went
// wrong on standard error, queues nothing, and never fails the job; and a
// job Bacula itself failed reaches ingest through it and is skipped, as it
// is by the catalog backfill.
#include <gtest/gtest.h>

#include <cstdlib>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/ingest/BaculaDomain.h"
#include "tests/ingest/DailyFiles.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using tsanomaly_test::BaculaDomain;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::DailyFiles;
using tsanomaly_test::TempDir;

class BaculaHook : public ::testing::Test {
 protected:
  void SetUp() override {
    DBAccess db(database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
    // The hook runs the tsanomalyctl just built, as the Director's would.
    setenv("PATH", (std::string(TSANOMALY_TEST_BIN_DIR) + ":" + std::getenv("PATH")).c_str(), 1);
  }

  std::size_t queued() {
    DBAccess db(database, SQLITE_OPEN_READONLY);
    db.set_busy_timeout(10000);
    Rows rows;
    db.read_data("SELECT 1 FROM DATA_TO_PROCESS", rows);
    return rows.size();
  }

  // Runs the hook; its exit status, which must be 0 whatever happened.
  int hook(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), tsanomaly_test::source_dir() + "/packaging/hooks/bacula-runscript");
    child = std::make_unique<ChildProcess>(arguments);
    return ChildProcess::run(*child);
  }

  TempDir dir;
  std::string database = dir.file("anomaly.db");
  std::unique_ptr<ChildProcess> child;
};

TEST_F(BaculaHook, WithoutItsArgumentsItSaysHowToCallIt) {
  EXPECT_EQ(hook({database}), 0);
  EXPECT_NE(child->err().find("usage: bacula-runscript"), std::string::npos) << child->err();
}

TEST_F(BaculaHook, WithoutANumericJobIdNothingIsQueued) {
  EXPECT_EQ(hook({database, "jobid=%i", "job=files.1", "jobstatus=OK"}), 0);
  EXPECT_NE(child->err().find("no numeric jobid"), std::string::npos) << child->err();
  EXPECT_EQ(queued(), 0u);
}

TEST_F(BaculaHook, WhenTheDirectorGivesNoTimesTheJobIsNotQueued) {
  EXPECT_EQ(hook({"-c", dir.file("missing-bconsole.conf"), database, "jobid=7", "job=files.7", "name=files",
                  "client=web-fd", "level=Incremental", "jobstatus=OK", "jobfiles=3", "jobbytes=10",
                  "readbytes=30", "fileset=Full Set", "pool=File"}),
            0);
  EXPECT_NE(child->err().find("gave no start and end time of JobId 7"), std::string::npos) << child->err();
  EXPECT_NE(child->err().find("no starttime"), std::string::npos) << child->err();
  EXPECT_NE(child->err().find("JobId 7 was not queued"), std::string::npos) << child->err();
  EXPECT_EQ(queued(), 0u);
}

TEST_F(BaculaHook, AJobBaculaFailedIsSkippedByTheHookAndTheBackfill) {
  BaculaDomain bacula(dir.file("bacula"), {database});
  DailyFiles files(bacula.data());
  files.create(20);
  bacula.start();
  bacula.run_job("Full", [&] { return queued() == 1; });
  bacula.fail_jobs(true);
  bacula.run_job("Incremental", [&] {
    return TempDir::read(bacula.log()).find("JobId 2 was not queued") != std::string::npos;
  });
  const std::string log = TempDir::read(bacula.log());
  EXPECT_NE(log.find("skipped: Bacula status \"Error\", not T"), std::string::npos) << log;
  EXPECT_EQ(queued(), 1u);

  const std::string backfill_db = dir.file("backfill.db");
  {
    DBAccess db(backfill_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
  }
  ChildProcess backfill({TSANOMALYCTL_PATH, "ingest", backfill_db, "--format", "bacula-catalog", bacula.catalog()});
  EXPECT_EQ(ChildProcess::run(backfill), 1);
  EXPECT_NE(backfill.err().find("(JobId 2): skipped: Bacula status \"E\""), std::string::npos) << backfill.err();
  EXPECT_NE(backfill.out().find("1 jobs queued"), std::string::npos) << backfill.out();
}

}  // namespace
