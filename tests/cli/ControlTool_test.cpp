// The operator tool: command dispatch and the one-pass command.
#include "tests/cli/CliFixture.h"

using tsanomaly_test::ChildProcess;

namespace {

class ControlToolTest : public CliFixture {
 protected:
  int run(const std::vector<std::string>& args) {
    child = std::make_unique<ChildProcess>(with({TSANOMALYCTL_PATH}, args));
    return ChildProcess::run(*child);
  }
  std::vector<std::string> detect_options() const {
    return {"detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path", log_dir()};
  }
  std::unique_ptr<ChildProcess> child;
};

}  // namespace

TEST_F(ControlToolTest, NoCommandPrintsUsageAndFails) {
  EXPECT_EQ(run({}), 2);
  EXPECT_NE(child->out().find("usage: tsanomalyctl COMMAND"), std::string::npos);
  EXPECT_NE(child->out().find("detect"), std::string::npos);
}

TEST_F(ControlToolTest, HelpPrintsUsageAndSucceeds) {
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_NE(child->out().find("usage: tsanomalyctl COMMAND"), std::string::npos);
}

TEST_F(ControlToolTest, UnknownCommandIsAnErrorOnStandardError) {
  EXPECT_EQ(run({"frobnicate"}), 2);
  EXPECT_NE(child->err().find("tsanomalyctl: unknown command 'frobnicate'"), std::string::npos);
}

TEST_F(ControlToolTest, DetectHelpNamesTheSixOptions) {
  EXPECT_EQ(run({"detect", "--help"}), 0);
  for (const char* option :
       {"-database_location", "-database_file_name", "-eps", "-min_samples", "-log_path", "-config_file"}) {
    EXPECT_NE(child->out().find(option), std::string::npos) << option;
  }
}

TEST_F(ControlToolTest, DetectRunsExactlyOnePassWithoutTheBanner) {
  EXPECT_EQ(run(detect_options()), 0);
  EXPECT_EQ(child->out(), "");
  const std::string log = log_text();
  size_t passes = 0;
  for (size_t at = log.find("Getting data for detection from database."); at != std::string::npos;
       at = log.find("Getting data for detection from database.", at + 1)) {
    ++passes;
  }
  EXPECT_EQ(passes, 1u);
  EXPECT_NE(log.find("<2> dbscan_detection: Completed getting data for detection.\n"), std::string::npos);
}

TEST_F(ControlToolTest, DetectMovesAnExcludedClientsJobIntoHistory) {
  tsanomaly_test::TempDir::write(dir.file("detector.ini"), "[EXCLUDE_CLIENTS]\nCLIENT_NAME=HostA\n");
  {
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess db(dir.file("anomaly.db"), SQLITE_OPEN_READWRITE);
    db.execute_query(
        "INSERT INTO DATA_TO_PROCESS VALUES ('img', 100, 'hosta', 'p', 'Standard', 'FULL', 'daily', 'app', 1, 2.0, "
        "7, 6, 3.0, 90, 100, 10, 1.5, 0, 'stu', 0, 'vm', 'key-1', 0)");
  }
  EXPECT_EQ(run(with(detect_options(), {"-config_file", dir.file("detector.ini")})), 0);
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess db(dir.file("anomaly.db"), SQLITE_OPEN_READWRITE);
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows rows;
  db.read_data("SELECT (SELECT COUNT(*) FROM DATA_TO_PROCESS) AS queued, (SELECT COUNT(*) FROM HIST_DATA) AS history",
               rows);
  EXPECT_TRUE(rows[0]["queued"] == "0");
  EXPECT_TRUE(rows[0]["history"] == "1");
  EXPECT_NE(log_text().find("Using configuration file " + dir.file("detector.ini")), std::string::npos);
  EXPECT_NE(log_text().find("Ignoring client 'hosta' for detection as per configuration."), std::string::npos);
}

TEST_F(ControlToolTest, DetectWithAnUnopenableLogExitsOne) {
  const std::string bad = dir.file("nope/nope");
  EXPECT_EQ(run({"detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path", bad}), 1);
  EXPECT_EQ(child->err(), "Failed to setup logging at [" + bad + "/tsanomalydetect]\n");
}

TEST_F(ControlToolTest, DetectOnAnUnopenableDatabaseReportsAndExitsZero) {
  EXPECT_EQ(run({"detect", "-database_location", dir.file("missing"), "-database_file_name", "x.db", "-log_path",
                 log_dir()}),
            0);
  EXPECT_EQ(child->out(), "\nError occurred while anomaly detection std::exception");
}
