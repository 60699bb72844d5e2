// A database that is not what the detector expects: each of the five tables
// missing in turn, a file that is not SQLite at all, and a database the
// detector can read but not write. Every case must end in a logged error (or
// the documented standard-output line) and leave every row as it was.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/badinput/BadInputFixture.h"
#include "tests/support/ChildProcess.h"

namespace badinput {
namespace {

constexpr const char* kFeedbackFailed = "Error occurred during incorporating user feedback into training set.";

// One of everything: a reported job k0 with a confirmed verdict, a usual job
// k1 and a far job k2 of a workload with 40 history rows and a stored eps.
class BadDatabase : public BadInputTest {
 protected:
  void seed() {
    usual_history(40);
    model("0.5");
    queue(job("k0", {{"JOB_ID", "41"}, {"PROCESSED_STATUS", "1"}}));
    anomaly("41_1000000", "k0");
    feedback("41_1000000", 1);
    queue(job("k1"));
    queue(job("k2", Cells{{"JOB_ID", "43"}} + pass_test::kFarFeatures));
  }

  // Drops a table and runs three passes. Whatever the first one managed to
  // do, the later ones must find a steady state: the same lines, the same
  // output, no row changed. Returns the first pass.
  PassOutput without_table(const std::string& table) {
    seed();
    sql("DROP TABLE " + table);
    const PassOutput first = pass_capturing_stdout();
    const PassOutput second = pass_capturing_stdout();
    const std::vector<Strings> after_second = dump_all();
    const PassOutput third = pass_capturing_stdout();
    EXPECT_EQ(third.log, second.log) << "later passes must meet the same state";
    EXPECT_EQ(third.out, second.out);
    EXPECT_EQ(dump_all(), after_second);
    return first;
  }
};

TEST_F(BadDatabase, MissingQueueTableIsLoggedAndEndsEveryPassWithoutTouchingAnyRow) {
  const PassOutput result = without_table("DATA_TO_PROCESS");
  EXPECT_EQ(result.log, (Strings{info(kFeedbackFailed), kSetUp1, info("Could not get data for detection.")}));
  EXPECT_EQ(result.out, "");
}

TEST_F(BadDatabase, MissingHistoryTableIsLoggedAsAnErrorAndEndsEveryPassWithEveryJobPending) {
  const PassOutput result = without_table("HIST_DATA");
  ASSERT_EQ(result.log.size(), 6u) << testing::PrintToString(result.log);
  EXPECT_EQ(result.log[0], info("Updating user feedback for training for client = c1, policy = p1, policy_type = "
                                "Standard, schedule_name = daily & app_type = app"));
  EXPECT_EQ(result.log[1], info(kFeedbackFailed));
  EXPECT_EQ(result.log[4].rfind(info("Error while getting minimum required observations. sqlite prepare statement "
                                     "failed for query - SELECT COUNT(*)"),
                                0),
            0u)
      << result.log[4];
  EXPECT_EQ(result.log[5].rfind(error("Error while doing detection - sqlite prepare statement failed for query - "
                                      "INSERT OR REPLACE INTO HIST_DATA"),
                                0),
            0u)
      << result.log[5];
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(feedback_rows(), Strings{"41_1000000|1"});
  EXPECT_EQ(queue_state(), (Strings{"k0:1", "k1:0", "k2:0"}));
  expect_every_job_kept({"k0", "k1", "k2"});
}

TEST_F(BadDatabase, MissingModelTableIsLoggedAsAnErrorAndEndsEveryPassWithTheJobsPending) {
  const PassOutput result = without_table("DBSCAN_MODEL_PARAMS");
  EXPECT_EQ(result.log.back(),
            error("Error while doing detection - sqlite prepare statement failed for query - SELECT EPS, CAPTURE_DATE "
                  "FROM DBSCAN_MODEL_PARAMS  WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ?   AND SCHEDULE_TYPE "
                  "= ? AND SCHEDULE_NAME = ? AND APP_TYPE = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ?"));
  EXPECT_EQ(result.out, "");
  // The verdict was folded in before the job failed.
  EXPECT_EQ(queue_state(), (Strings{"k1:0", "k2:0"}));
  EXPECT_EQ(history_row("k0")["USER_IDENTIFIED_CLUSTER"], "1");
  expect_every_job_kept({"k0", "k1", "k2"});
}

TEST_F(BadDatabase, MissingAnomalyTableKeepsTheVerdictAndTheAnomalousJobPendingWhileTheUsualJobIsAccepted) {
  seed();
  sql("DROP TABLE ANOMALY_DATA");

  const PassOutput first = pass_capturing_stdout();
  EXPECT_EQ(first.log.front(), info(kFeedbackFailed));
  EXPECT_TRUE(has_line(first.log, info("Anomaly not detected.")));
  EXPECT_TRUE(has_line(first.log, info("Anomaly detected for job 43")));
  EXPECT_EQ(first.out, "\nUnexpected error during anomaly detection.");
  EXPECT_EQ(queue_state(), (Strings{"k0:1", "k2:0"}));
  EXPECT_EQ(feedback_rows(), Strings{"41_1000000|1"});
  EXPECT_EQ(history_row("k1")["JOB_ID"], "42");

  const PassOutput second = pass_capturing_stdout();
  EXPECT_EQ(second.out, "\nUnexpected error during anomaly detection.");
  EXPECT_EQ(queue_state(), (Strings{"k0:1", "k2:0"}));
  EXPECT_EQ(count("HIST_DATA"), 41);
}

TEST_F(BadDatabase, MissingFeedbackTableIsLoggedAndThePassJudgesEveryJob) {
  seed();
  sql("DROP TABLE ANOMALY_DATA_FEEDBACK");

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.log.front(), info(kFeedbackFailed));
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(queue_state(), (Strings{"k0:1", "k2:1"}));
  EXPECT_EQ(anomaly_rows(), (Strings{"41_1000000|0|k0|c1|1600000000", "43_1000000|0|k2|c1|1700000000"}));
}

// ---- a file that is not SQLite --------------------------------------------

class NotADatabase : public BadInputTest {
 protected:
  // Runs a pass of a second service on the file and returns its log lines.
  Strings pass_on(const std::string& file_name) {
    DetectionService other(dir.path(), file_name, 0.5, 3.0, ini_path());
    const std::size_t before = log_lines().size();
    other.do_detection();
    const Strings all = log_lines();
    return Strings(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
  }
};

TEST_F(NotADatabase, TextFileIsLoggedAsUnreadableAndLeftByteForByteUnchanged) {
  std::string text = "this is not a database\n";
  for (int i = 0; i < 200; ++i) text += "line " + std::to_string(i) + " of a text file\n";
  tsanomaly_test::TempDir::write(dir.file("text.db"), text);

  const Strings first = pass_on("text.db");
  const Strings second = pass_on("text.db");

  EXPECT_EQ(first, (Strings{info(kFeedbackFailed), kSetUp1, info("Could not get data for detection.")}));
  EXPECT_EQ(second, first);
  EXPECT_EQ(tsanomaly_test::TempDir::read(dir.file("text.db")), text);
  EXPECT_FALSE(std::filesystem::exists(dir.file("text.db-journal")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("text.db-wal")));
}

TEST_F(NotADatabase, FileWithASqliteHeaderAndGarbageBehindItIsLoggedAsUnreadableAndLeftUnchanged) {
  std::string bytes("SQLite format 3", 16);
  for (int i = 0; i < 8192; ++i) bytes.push_back(static_cast<char>((i * 131 + 7) % 256));
  tsanomaly_test::TempDir::write(dir.file("garbage.db"), bytes);

  const Strings log = pass_on("garbage.db");

  EXPECT_EQ(log, (Strings{info(kFeedbackFailed), kSetUp1, info("Could not get data for detection.")}));
  EXPECT_EQ(tsanomaly_test::TempDir::read(dir.file("garbage.db")), bytes);
}

TEST_F(NotADatabase, EmptyFileIsAnEmptyDatabaseWithoutTablesAndStaysEmpty) {
  tsanomaly_test::TempDir::write(dir.file("empty.db"), "");

  const Strings log = pass_on("empty.db");

  EXPECT_EQ(log, (Strings{info(kFeedbackFailed), kSetUp1, info("Could not get data for detection.")}));
  EXPECT_EQ(std::filesystem::file_size(dir.file("empty.db")), 0u);
}

TEST_F(NotADatabase, DirectoryInPlaceOfTheFileFailsConstructionWithALoggedError) {
  std::filesystem::create_directory(dir.file("folder.db"));
  const std::size_t before = log_lines().size();

  EXPECT_THROW(DetectionService(dir.path(), "folder.db", 0.5, 3.0, ini_path()), std::exception);

  const Strings all = log_lines();
  EXPECT_EQ(Strings(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
            Strings{error("Could not create database folder.db")});
}

// ---- a database that can be read but not written -----------------------------

class ReadOnlyDatabase : public BadDatabase {};

// SQLite reads names beginning with "file:" as URIs, so the service itself
// can be handed a read-only connection (mode=ro); every write it tries then
// fails as a write to a read-only file would.
TEST_F(ReadOnlyDatabase, ReadOnlyConnectionFailsEveryWriteWithALoggedErrorOrTheStandardOutputLineAndChangesNothing) {
  seed();
  const std::vector<Strings> before = dump_all();

  DetectionService read_only("file:" + dir.path(), "anomaly.db?mode=ro", 0.5, 3.0, ini_path());
  read_only.set_clock([] { return kNow; });
  ASSERT_EQ(sqlite3_db_readonly(read_only.database().handle, "main"), 1);

  for (int i = 0; i < 2; ++i) {
    testing::internal::CaptureStdout();
    const std::size_t first_line = log_lines().size();
    read_only.do_detection();
    const std::string out = testing::internal::GetCapturedStdout();
    const Strings all = log_lines();
    const Strings log(all.begin() + static_cast<std::ptrdiff_t>(first_line), all.end());

    EXPECT_TRUE(has_line(log, info(kFeedbackFailed)));
    EXPECT_TRUE(has_line(log, info("Anomaly not detected.")));
    EXPECT_TRUE(has_line(log, info("Anomaly detected for job 43")));
    EXPECT_EQ(out, "\nUnexpected error during anomaly detection.\nUnexpected error during anomaly detection.");
    EXPECT_EQ(dump_all(), before);
  }
}

// The same through the file's permissions: the one-pass tool runs as an
// unprivileged user on a database file of mode 0444 (root would ignore the
// mode, so when the tests run as root the tool is started as nobody).
TEST_F(ReadOnlyDatabase, FileOfMode0444FailsEveryWriteOfThePassAndChangesNothing) {
  seed();
  const std::vector<Strings> before = dump_all();
  service.reset();  // the last connection: the write-ahead log is folded back in

  const std::string logs = dir.file("ro-logs");
  std::filesystem::create_directory(logs);
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  ASSERT_EQ(chmod(logs.c_str(), 0777), 0);
  ASSERT_EQ(chmod(ini_path().c_str(), 0644), 0);
  ASSERT_EQ(chmod(db_path().c_str(), 0444), 0);

  std::vector<std::string> argv;
  if (geteuid() == 0) {
    if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "running as root without setpriv";
    argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
  for (const std::string& arg : {std::string(TSANOMALYCTL_PATH), std::string("detect"), std::string("-database_location"),
                                  dir.path(), std::string("-database_file_name"), std::string("anomaly.db"),
                                  std::string("-eps"), std::string("0.5"), std::string("-log_path"), logs,
                                  std::string("-config_file"), ini_path()}) {
    argv.push_back(arg);
  }
  tsanomaly_test::ChildProcess tool(argv);
  const int exit_code = tsanomaly_test::ChildProcess::run(tool);
  const std::string log = tsanomaly_test::TempDir::read(logs + "/tsanomalydetect/tsanomalydetect.log");

  EXPECT_EQ(exit_code, 0) << tool.err();
  EXPECT_EQ(tool.err(), "");
  EXPECT_NE(log.find("<2> dbscan_detection: " + std::string(kFeedbackFailed)), std::string::npos) << log;
  EXPECT_NE(log.find("<2> dbscan_detection: Anomaly not detected."), std::string::npos) << log;
  EXPECT_EQ(tool.out(), "\nUnexpected error during anomaly detection.\nUnexpected error during anomaly detection.");

  ASSERT_EQ(chmod(db_path().c_str(), 0644), 0);
  service = std::make_unique<DetectionService>(dir.path(), "anomaly.db", 0.5, 3.0, ini_path());
  EXPECT_EQ(dump_all(), before);
}

}  // namespace
}  // namespace badinput
