// What the operator tool writes and shows, against hostile bytes and paths:
// escapes on the terminal, complete JSON, the files init and report create
// (modes under every umask, links, devices, the database's own files).
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/RowWriter.h"
#include "tests/support/InProcessCommand.h"
#include "tests/support/TempDir.h"
#include "cli/AnomaliesCommand.h"
#include "cli/InitCommand.h"
#include "cli/ReportCommand.h"
#include "cli/ServeCommand.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using tsanomaly_test::RowWriter;
using tsanomaly_test::TempDir;

namespace {

using tsanomaly_test::Outcome;
using tsanomaly_test::run;

mode_t mode_of(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

// Runs command under the given umask and restores the previous one.
Outcome run_under_umask(mode_t mask, int (*command)(int, char**), std::vector<std::string> args) {
  const mode_t previous = umask(mask);
  Outcome outcome = run(command, std::move(args));
  umask(previous);
  return outcome;
}

class OperatorSafetyTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(run(run_init, {db_path}).exit_code, 0); }

  // An anomaly row as a hostile writer could leave it.
  void insert_anomaly(const std::string& id, const std::string& client, const std::string& payload) {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);
    Row row;
    row["ANOMALY_UNIQUE_ID"] = Value(id);
    row["ANOMALY_PAYLOAD"] = Value(payload);
    row["ANOMALY_STATE"] = Value(0);
    row["DETECTION_KEY"] = Value(std::string("k-" + id));
    row["CLIENT"] = Value(client);
    row["DETECTION_TIME"] = Value(1700000000);
    RowWriter::insert(db, "ANOMALY_DATA", row);
  }

  TempDir dir;
  std::string db_path = dir.file("anomaly.db");
};

}  // namespace

TEST_F(OperatorSafetyTest, AnomaliesTableShowsControlCharactersAndInvalidBytesAsEscapes) {
  insert_anomaly("1_1", "evil\x1b]0;owned\x07\x1b[2J\ncli\xff",
                 "{\"Attributes\":{\"policyName\":\"p\\u001b[31m\",\"summary\":\"s\\r\\n\",\"score\":\"1.00\"}}");
  const Outcome outcome = run(run_anomalies, {db_path});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(outcome.out.find('\r'), std::string::npos);
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 2) << outcome.out;
  EXPECT_NE(outcome.out.find("evil\\x1b]0;owned\\x07\\x1b[2J\\ncli\\xff"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("p\\x1b[31m"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("s\\r\\n"), std::string::npos) << outcome.out;
}

TEST_F(OperatorSafetyTest, AnomaliesJsonKeepsEveryMemberWhenTextIsNotUtf8) {
  insert_anomaly("2_1", "caf\xe9", "{\"Attributes\":{\"policyName\":\"pol\",\"clientName\":\"caf\xe9\"}}");
  insert_anomaly("3_1", "ok", "not json \xff");
  const Outcome outcome = run(run_anomalies, {db_path, "--json"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  std::istringstream lines(outcome.out);
  int seen = 0;
  for (std::string line; std::getline(lines, line); ++seen) {
    json_t* root = json_loads(line.c_str(), 0, nullptr);
    ASSERT_NE(root, nullptr) << line;
    for (const char* member : {"id", "client", "policy", "detection_time", "summary", "score", "payload"}) {
      EXPECT_NE(json_object_get(root, member), nullptr) << member << " in " << line;
    }
    json_decref(root);
  }
  EXPECT_EQ(seen, 2);
  EXPECT_NE(outcome.out.find("\"client\":\"caf\xEF\xBF\xBD\""), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("\"clientName\":\"caf\xEF\xBF\xBD\""), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("\"payload\":\"not json \xEF\xBF\xBD\""), std::string::npos) << outcome.out;
}

TEST_F(OperatorSafetyTest, InitCreatesTheDatabaseWithAModeThatHonoursTheUmask) {
  const struct {
    mode_t mask;
    mode_t mode;
  } cases[] = {{000, 0644}, {022, 0644}, {077, 0600}};
  for (const auto& c : cases) {
    const std::string path = dir.file("new-" + std::to_string(c.mask) + ".db");
    ASSERT_EQ(run_under_umask(c.mask, run_init, {path}).exit_code, 0);
    EXPECT_EQ(mode_of(path), c.mode) << "umask " << c.mask;
  }
}

TEST_F(OperatorSafetyTest, InitRefusesADanglingLinkWithoutCreatingItsTarget) {
  ASSERT_EQ(symlink(dir.file("target.db").c_str(), dir.file("link.db").c_str()), 0);
  const Outcome outcome = run(run_init, {dir.file("link.db")});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.err.find("not a regular file"), std::string::npos) << outcome.err;
  EXPECT_FALSE(std::filesystem::exists(dir.file("target.db")));
}

TEST_F(OperatorSafetyTest, InitRefusesALinkToAnExistingDatabase) {
  ASSERT_EQ(symlink(db_path.c_str(), dir.file("link.db").c_str()), 0);
  EXPECT_EQ(run(run_init, {dir.file("link.db")}).exit_code, 1);
}

TEST_F(OperatorSafetyTest, InitRefusesADeviceAndNeverPrintsTheSchema) {
  const Outcome outcome = run(run_init, {"/dev/null"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.err, "tsanomalyctl init: cannot initialise '/dev/null': not a regular file\n");
  EXPECT_FALSE(std::filesystem::exists("/dev/null-journal"));
  EXPECT_FALSE(std::filesystem::exists("/dev/null-wal"));
}

TEST_F(OperatorSafetyTest, InitFailureNamesSqlitesReasonNotTheSchema) {
  DBAccess writer(db_path, SQLITE_OPEN_READWRITE);
  writer.execute_query("DROP TABLE HIST_DATA");
  writer.execute_query("BEGIN IMMEDIATE");  // init must write, and cannot
  const Outcome outcome = run(run_init, {db_path});
  writer.execute_query("ROLLBACK");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.err, "tsanomalyctl init: cannot initialise '" + db_path + "': database is locked\n");
}

TEST_F(OperatorSafetyTest, ReportRefusesTheDatabasesWalShmAndJournalFiles) {
  {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);  // leaves -wal and -shm while open
    db.execute_query("INSERT INTO ANOMALY_DATA_FEEDBACK VALUES ('x', 1)");
    ASSERT_TRUE(std::filesystem::exists(db_path + "-wal"));
    const std::string wal_before = TempDir::read(db_path + "-wal");
    for (const std::string& target : {db_path + "-wal", db_path + "-shm", db_path + "-journal",
                                      dir.path() + "/./anomaly.db-journal", dir.path() + "/../" +
                                      std::filesystem::path(dir.path()).filename().string() + "/anomaly.db-wal"}) {
      const Outcome outcome = run(run_report, {db_path, "-o", target});
      EXPECT_EQ(outcome.exit_code, 2) << target;
      EXPECT_NE(outcome.err.find("-o names the database's -"), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(TempDir::read(db_path + "-wal"), wal_before);
    EXPECT_FALSE(std::filesystem::exists(db_path + "-journal"));
  }
  EXPECT_EQ(run(run_report, {db_path, "-o", dir.file("report.html")}).exit_code, 0);
}

// Runs command with dir as the working folder, so relative paths resolve
// there, and returns to the previous one.
Outcome run_in(const std::string& dir, int (*command)(int, char**), std::vector<std::string> args) {
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  Outcome outcome = run(command, std::move(args));
  std::filesystem::current_path(previous);
  return outcome;
}

TEST_F(OperatorSafetyTest, ReportRefusesACompanionFileHoweverEitherPathIsSpelled) {
  std::filesystem::create_symlink(db_path, dir.file("link.db"));
  const struct {
    std::string database, output;
  } cases[] = {{"anomaly.db", "anomaly.db-journal"},   {"./anomaly.db", "anomaly.db-journal"},
               {"anomaly.db", "./anomaly.db-wal"},     {"link.db", "anomaly.db-journal"},
               {"link.db", db_path + "-shm"},          {db_path, "anomaly.db-journal"},
               {"../" + std::filesystem::path(dir.path()).filename().string() + "/anomaly.db", "anomaly.db-journal"}};
  for (const auto& c : cases) {
    const Outcome outcome = run_in(dir.path(), run_report, {c.database, "-o", c.output});
    EXPECT_EQ(outcome.exit_code, 2) << c.database << " " << c.output;
    EXPECT_NE(outcome.err.find("-o names the database's -"), std::string::npos) << outcome.err;
  }
  EXPECT_FALSE(std::filesystem::exists(db_path + "-journal"));
  const Outcome itself = run_in(dir.path(), run_report, {"link.db", "-o", "anomaly.db"});
  EXPECT_EQ(itself.exit_code, 2);
  EXPECT_NE(itself.err.find("-o names the database itself"), std::string::npos) << itself.err;
  EXPECT_EQ(run_in(dir.path(), run_report, {"anomaly.db", "-o", "anomaly.db-journal.html"}).exit_code, 0);
}

TEST_F(OperatorSafetyTest, ServeRefusesATokenFileThatIsACompanionFile) {
  for (const std::string& token_file : {std::string("anomaly.db-journal"), db_path + "-wal", std::string("./anomaly.db")}) {
    const Outcome outcome = run_in(dir.path(), run_serve, {"anomaly.db", "--token-file", token_file});
    EXPECT_EQ(outcome.exit_code, 2) << token_file;
    EXPECT_NE(outcome.err.find("--token-file names the database"), std::string::npos) << outcome.err;
  }
  EXPECT_FALSE(std::filesystem::exists(db_path + "-journal"));
  EXPECT_FALSE(std::filesystem::exists(db_path + "-wal"));
}

TEST_F(OperatorSafetyTest, ReportModeIsAtMost0644UnderEveryUmask) {
  const struct {
    mode_t mask;
    mode_t mode;
  } cases[] = {{000, 0644}, {022, 0644}, {077, 0600}};
  for (const auto& c : cases) {
    const std::string page = dir.file("report-" + std::to_string(c.mask) + ".html");
    ASSERT_EQ(run_under_umask(c.mask, run_report, {db_path, "-o", page}).exit_code, 0);
    EXPECT_EQ(mode_of(page), c.mode) << "umask " << c.mask;
  }
}
