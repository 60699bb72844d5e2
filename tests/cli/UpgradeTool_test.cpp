// tsanomalyctl upgrade and the schema lines of tsanomalyctl status, run as
// child processes on a database made the way the backup product makes it
// (tests/support/plain_product_db.sql): the detector's tables and rows,
// plain indexes on the workload key, no triggers, a rollback journal.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "schema/DetectorSql.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;
using namespace detector_sql;

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

Rows query(const std::string& path, const std::string& sql) {
  DBAccess db(path, SQLITE_OPEN_READONLY);
  Rows rows;
  db.read_data(sql, rows);
  return rows;
}

// Every row of every table, in storage order, as text.
std::string contents(const std::string& path) {
  std::ostringstream out;
  for (auto& table : query(path, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
    out << "table " << table["name"].text() << "\n";
    for (auto& row : query(path, "SELECT rowid AS row_id, * FROM \"" + table["name"].text() + "\" ORDER BY rowid")) {
      for (auto& [column, value] : row) out << column << "=" << value.text() << "|";
      out << "\n";
    }
  }
  return out.str();
}

std::vector<std::string> plan_of(const std::string& path, const char* sql) {
  DBAccess db(path, SQLITE_OPEN_READONLY);
  Statement st(db.handle, std::string("EXPLAIN QUERY PLAN ") + sql);
  Rows rows;
  db.read_data_prepared(st, rows);
  std::vector<std::string> details;
  for (auto& row : rows) details.push_back(row["detail"].text());
  return details;
}

// Runs argv with a new pseudo-terminal as its standard input, output and
// error; returns all it wrote there. The child is killed after 30 s.
std::string run_on_terminal(std::vector<std::string> argv, int& exit_code) {
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    execv(args[0], args.data());
    _exit(127);
  }
  std::string out;
  char buffer[4096];
  pollfd ready{terminal, POLLIN, 0};
  while (poll(&ready, 1, 30000) > 0) {
    const ssize_t n = read(terminal, buffer, sizeof buffer);
    if (n <= 0) break;  // EIO once the child has closed the terminal
    out.append(buffer, static_cast<size_t>(n));
  }
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  close(terminal);
  exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

class UpgradeToolTest : public ::testing::Test {
 protected:
  void SetUp() override { make_product_database(db_path); }

  // A detector database with history, a queue, models and anomalies (one
  // simulated domain and one pass), copied into tables made the product's way.
  void make_product_database(const std::string& path) {
    const std::string source = dir.file("detector.db");
    ASSERT_EQ(ctl({"simulate", source, "--workloads", "30", "--days", "60", "--pending", "30", "--anomalies", "20",
                   "--streams", "--seed", "3"}),
              0)
        << child->err();
    ASSERT_EQ(ctl({"detect", "-database_location", dir.path(), "-database_file_name", "detector.db", "-log_path",
                   dir.path()}),
              0);
    DBAccess db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    Statement attach(db.handle, "ATTACH ? AS src");
    attach.bind(1, source);
    db.execute_query_prepared(attach);
    db.execute_query(TempDir::read(tsanomaly_test::source_dir() + "/tests/support/plain_product_db.sql"));
    db.execute_query("INSERT INTO ANOMALY_DATA_FEEDBACK SELECT ANOMALY_UNIQUE_ID, 0 FROM ANOMALY_DATA LIMIT 1");
  }

  int ctl(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {TSANOMALYCTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    child = std::make_unique<ChildProcess>(argv);
    return ChildProcess::run(*child);
  }

  std::string file_bytes() const { return TempDir::read(db_path); }
  bool side_files_exist() const {
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
      if (std::filesystem::exists(db_path + suffix)) return true;
    }
    return false;
  }

  TempDir dir;
  std::string db_path = dir.file("product.db");
  std::unique_ptr<ChildProcess> child;
};

const char* const kDifferences[] = {
    "missing index DATA_TO_PROCESS_BY_STATUS on DATA_TO_PROCESS",
    "missing index HIST_DATA_BY_WORKLOAD on HIST_DATA",
    "missing index HIST_DATA_BY_WORKLOAD_ANY_STORAGE on HIST_DATA",
    "missing index HIST_DATA_BY_STREAM on HIST_DATA",
    "missing index ANOMALY_DATA_FEEDBACK_BY_VERDICT on ANOMALY_DATA_FEEDBACK",
    "missing trigger HIST_DATA_TAKES_JOB_OFF_QUEUE on HIST_DATA",
    "missing trigger ANOMALY_DATA_MARKS_JOB_PROCESSED on ANOMALY_DATA",
    "journal mode delete, not WAL",
};

}  // namespace

TEST_F(UpgradeToolTest, WithoutApplyListsTheDifferencesAndLeavesTheFileByteForByte) {
  const std::string before = file_bytes();
  ASSERT_EQ(ctl({"upgrade", db_path}), 0) << child->err();
  const std::string& out = child->out();
  for (const char* difference : kDifferences) EXPECT_TRUE(contains(out, "  - " + std::string(difference))) << out;
  EXPECT_TRUE(contains(out, "costs: training reads and last-backup lookups go to the table")) << out;
  EXPECT_TRUE(contains(out, "a kill between them leaves it in both tables")) << out;
  // The product's own indexes serve the uniqueness and the verdict lookup.
  EXPECT_FALSE(contains(out, "uniqueness")) << out;
  EXPECT_FALSE(contains(out, "ANOMALY_DATA_FEEDBACK_BY_ID")) << out;
  EXPECT_TRUE(contains(out, "Nothing was changed. To add what is missing, run: tsanomalyctl upgrade " + db_path +
                                " --apply --wal\n"))
      << out;
  EXPECT_EQ(child->err(), "");
  EXPECT_TRUE(file_bytes() == before);
  EXPECT_FALSE(side_files_exist());
}

TEST_F(UpgradeToolTest, ApplyWithWalKeepsEveryRowAndGivesTheDetectorItsIndexesTriggersAndJournal) {
  for (const char* table : {"DATA_TO_PROCESS", "HIST_DATA", "DBSCAN_MODEL_PARAMS", "ANOMALY_DATA",
                            "ANOMALY_DATA_FEEDBACK", "PRODUCT_SETTINGS"}) {
    EXPECT_GT(static_cast<int>(query(db_path, std::string("SELECT COUNT(*) AS n FROM ") + table)[0]["n"]), 0) << table;
  }
  EXPECT_FALSE(contains(plan_of(db_path, kSelectTrainingSet)[0], "COVERING INDEX"));
  const std::string before = contents(db_path);

  ASSERT_EQ(ctl({"upgrade", db_path, "--apply", "--wal"}), 0) << child->err();
  EXPECT_TRUE(contains(child->out(), "Created index HIST_DATA_BY_WORKLOAD on HIST_DATA.\n")) << child->out();
  EXPECT_TRUE(contains(child->out(), "Switched the journal to WAL: every process that uses the file must run on "
                                     "this host"))
      << child->out();
  EXPECT_EQ(child->err(), "");  // no progress without a terminal

  EXPECT_EQ(contents(db_path), before);
  EXPECT_EQ(query(db_path, "PRAGMA journal_mode")[0]["journal_mode"].text(), "wal");
  const Rows triggers = query(db_path, "SELECT name FROM sqlite_master WHERE type = 'trigger' ORDER BY name");
  ASSERT_EQ(triggers.size(), 2u);
  EXPECT_EQ(triggers[0].at("name").text(), "ANOMALY_DATA_MARKS_JOB_PROCESSED");
  EXPECT_EQ(triggers[1].at("name").text(), "HIST_DATA_TAKES_JOB_OFF_QUEUE");
  // The product's verdict index was kept and not doubled.
  EXPECT_EQ(static_cast<int>(query(db_path, "SELECT COUNT(*) AS n FROM pragma_index_list('ANOMALY_DATA_FEEDBACK')")[0]["n"]),
            2);

  const std::pair<const char*, const char*> reads_from_the_index_alone[] = {
      {kSelectTrainingSet, "HIST_DATA_BY_WORKLOAD"},
      {kSelectFallbackTrainingSet, "HIST_DATA_BY_WORKLOAD_ANY_STORAGE"},
      {kCountHistoryAnyStorage, "HIST_DATA_BY_WORKLOAD_ANY_STORAGE"},
      {kSelectMaxStreamNumber, "HIST_DATA_BY_STREAM"},
      {kCountHistoryOfStream, "HIST_DATA_BY_STREAM"},
  };
  for (const auto& [sql, index] : reads_from_the_index_alone) {
    const auto plan = plan_of(db_path, sql);
    ASSERT_FALSE(plan.empty()) << sql;
    EXPECT_TRUE(contains(plan[0], std::string("USING COVERING INDEX ") + index + " ")) << sql << " -> " << plan[0];
  }
  for (const char* sql : {kSelectPendingJobs, kMarkJobProcessed, kDeletePendingJob, kSelectJobByKey, kInsertHistory,
                          kSelectLastBackupTime, kSelectModelParams, kDeleteModelParams, kInsertModelParams, kInsertAnomaly,
                          kSelectDetectionKey, kSelectFeedback, kDeleteFeedback}) {
    for (const std::string& detail : plan_of(db_path, sql)) {
      EXPECT_NE(detail.rfind("SCAN", 0), 0u) << sql << " -> " << detail;
      EXPECT_FALSE(contains(detail, "TEMP B-TREE")) << sql << " -> " << detail;
    }
  }
}

TEST_F(UpgradeToolTest, ASecondApplyFindsNothingToDoAndChangesNothing) {
  ASSERT_EQ(ctl({"upgrade", db_path, "--apply", "--wal"}), 0) << child->err();
  const std::string before = file_bytes();
  ASSERT_EQ(ctl({"upgrade", db_path, "--apply", "--wal"}), 0) << child->err();
  EXPECT_EQ(child->out(), db_path + " matches the detector's schema: nothing to do.\n");
  EXPECT_TRUE(file_bytes() == before);
  ASSERT_EQ(ctl({"upgrade", db_path}), 0);
  EXPECT_EQ(child->out(), db_path + " matches the detector's schema: nothing to do.\n");
}

TEST_F(UpgradeToolTest, AMissingUniquenessIsReportedAndLeftAsItIs) {
  {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);
    db.execute_query("DROP INDEX PRODUCT_HISTORY_KEY");
    db.execute_query("INSERT INTO HIST_DATA SELECT * FROM HIST_DATA LIMIT 1");  // a key twice
  }
  const std::string rows_before = contents(db_path);
  ASSERT_EQ(ctl({"upgrade", db_path}), 0) << child->err();
  EXPECT_TRUE(contains(child->out(), "  - no uniqueness on HIST_DATA (UNIQUE_KEY)\n      costs: INSERT OR REPLACE no "
                                     "longer replaces"))
      << child->out();
  EXPECT_TRUE(contains(child->out(), "left as it is: a unique index fails on a table that already holds duplicates"))
      << child->out();

  ASSERT_EQ(ctl({"upgrade", db_path, "--apply"}), 0) << child->err();
  EXPECT_TRUE(contains(child->out(), "Created index HIST_DATA_BY_WORKLOAD on HIST_DATA.")) << child->out();
  EXPECT_EQ(contents(db_path), rows_before);
  EXPECT_EQ(static_cast<int>(query(db_path, "SELECT COUNT(*) AS n FROM pragma_index_list('HIST_DATA') WHERE "
                                            "\"unique\" = 1")[0]["n"]),
            0);
  ASSERT_EQ(ctl({"upgrade", db_path}), 0);
  EXPECT_TRUE(contains(child->out(), "no uniqueness on HIST_DATA (UNIQUE_KEY)")) << child->out();
}

TEST_F(UpgradeToolTest, AFileThatIsNotADetectorDatabaseIsRefused) {
  TempDir::write(dir.file("junk.db"), std::string(4096, 'x'));
  for (const char* apply : {"", "--apply"}) {
    std::vector<std::string> args = {"upgrade", dir.file("junk.db")};
    if (*apply != '\0') args.push_back(apply);
    EXPECT_EQ(ctl(args), 1);
    EXPECT_EQ(child->err(), "tsanomalyctl upgrade: '" + dir.file("junk.db") + "' is not an SQLite database\n");
  }
  EXPECT_EQ(TempDir::read(dir.file("junk.db")), std::string(4096, 'x'));

  DBAccess(dir.file("payroll.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).execute_query("CREATE TABLE payroll(x)");
  EXPECT_EQ(ctl({"upgrade", dir.file("payroll.db"), "--apply"}), 1);
  EXPECT_TRUE(contains(child->err(), "is not a detector database: it has no DATA_TO_PROCESS, HIST_DATA")) << child->err();
  EXPECT_EQ(query(dir.file("payroll.db"), "SELECT COUNT(*) AS n FROM sqlite_master")[0]["n"].text(), "1");

  EXPECT_EQ(ctl({"upgrade", dir.file("missing.db")}), 1);
  EXPECT_EQ(child->err(), "tsanomalyctl upgrade: cannot read '" + dir.file("missing.db") + "': No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("missing.db")));
}

// As root a file's mode does not stop writes, so the tool then runs as
// nobody, for whom the file is read-only like for anyone but its owner.
TEST_F(UpgradeToolTest, AReadOnlyFileIsComparedButNotChanged) {
  ASSERT_EQ(chmod(db_path.c_str(), 0444), 0);
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  std::vector<std::string> as_reader;
  if (geteuid() == 0) {
    const passwd* nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    as_reader = {"/usr/bin/setpriv", "--reuid=" + std::to_string(nobody->pw_uid),
                 "--regid=" + std::to_string(nobody->pw_gid), "--clear-groups"};
  }
  const std::string before = file_bytes();
  auto run = [&](std::vector<std::string> args) {
    std::vector<std::string> argv = as_reader;
    argv.push_back(TSANOMALYCTL_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    child = std::make_unique<ChildProcess>(argv);
    return ChildProcess::run(*child);
  };
  EXPECT_EQ(run({"upgrade", db_path}), 0) << child->err();
  EXPECT_TRUE(contains(child->out(), "missing index HIST_DATA_BY_WORKLOAD on HIST_DATA")) << child->out();
  EXPECT_EQ(run({"upgrade", db_path, "--apply", "--wal"}), 1);
  EXPECT_EQ(child->err(), "tsanomalyctl upgrade: cannot write '" + db_path +
                              "' (read-only for this user or on this file system); nothing was changed\n");
  EXPECT_TRUE(file_bytes() == before);
  EXPECT_FALSE(side_files_exist());
}

TEST_F(UpgradeToolTest, ADatabaseAnotherConnectionIsWritingIsRefusedAndLeftUnchanged) {
  const std::string before = file_bytes();
  DBAccess writer(db_path, SQLITE_OPEN_READWRITE);
  writer.execute_query("BEGIN IMMEDIATE; INSERT INTO PRODUCT_SETTINGS VALUES ('pending', 'write')");

  EXPECT_EQ(ctl({"upgrade", db_path, "--apply", "--wal", "--busy-timeout", "200"}), 1);
  EXPECT_EQ(child->err(), "tsanomalyctl upgrade: '" + db_path +
                              "' is locked by another connection (waited 200 ms); nothing was changed: run again "
                              "once it is done, or wait longer with --busy-timeout\n");
  // Reading does not wait for the writer.
  EXPECT_EQ(ctl({"upgrade", db_path, "--busy-timeout", "200"}), 0) << child->err();

  writer.rollback_transaction();
  EXPECT_TRUE(file_bytes() == before);
  EXPECT_EQ(query(db_path, "SELECT COUNT(*) AS n FROM sqlite_master WHERE type IN ('index', 'trigger') AND name LIKE "
                           "'HIST_DATA%'")[0]["n"].text(),
            "0");
}

// In a rollback journal a reader keeps a writer from committing: the indexes
// built meanwhile are rolled back, and the journal cannot be switched.
TEST_F(UpgradeToolTest, AReaderThatOutlastsTheBusyTimeoutLeavesNothingHalfDone) {
  // Read first: closing any descriptor of the file would drop this
  // process's locks on it, the reader's included.
  const std::string before = file_bytes();
  DBAccess reader(db_path, SQLITE_OPEN_READONLY);
  reader.execute_query("BEGIN; SELECT COUNT(*) FROM HIST_DATA");
  EXPECT_EQ(ctl({"upgrade", db_path, "--apply", "--busy-timeout", "200"}), 1);
  EXPECT_TRUE(contains(child->err(), "is locked by another connection (waited 200 ms); nothing was changed"))
      << child->err();
  EXPECT_FALSE(contains(child->out(), "Created")) << child->out();
  EXPECT_FALSE(side_files_exist());
  reader.commit_transaction();
  EXPECT_TRUE(file_bytes() == before);

  ASSERT_EQ(ctl({"upgrade", db_path, "--apply"}), 0) << child->err();
  reader.execute_query("BEGIN; SELECT COUNT(*) FROM HIST_DATA");
  EXPECT_EQ(ctl({"upgrade", db_path, "--apply", "--wal", "--busy-timeout", "200"}), 1);
  EXPECT_EQ(child->err(), "tsanomalyctl upgrade: the journal of '" + db_path +
                              "' could not be switched to WAL (Query execution failed for  PRAGMA journal_mode = WAL "
                              "(database is locked)); anything created above is kept: run again with --wal once no "
                              "other process has the file open\n");
  reader.commit_transaction();
  EXPECT_EQ(query(db_path, "PRAGMA journal_mode")[0]["journal_mode"].text(), "delete");
}

TEST_F(UpgradeToolTest, BuildingAnIndexShowsProgressOnATerminal) {
  int exit_code = -1;
  const std::string screen = run_on_terminal({TSANOMALYCTL_PATH, "upgrade", db_path, "--apply"}, exit_code);
  EXPECT_EQ(exit_code, 0) << screen;
  EXPECT_TRUE(contains(screen, "\rCreating index HIST_DATA_BY_WORKLOAD on HIST_DATA ... done ")) << screen;
  EXPECT_TRUE(contains(screen, "Created index HIST_DATA_BY_WORKLOAD on HIST_DATA.")) << screen;
}

// A history whose pages cannot be read: the comparison, which reads only the
// schema, succeeds; building the first index on the history fails, and the
// index built before it is rolled back with it.
TEST_F(UpgradeToolTest, AnIndexThatCannotBeBuiltLeavesNothingHalfDone) {
  const int root = query(db_path, "SELECT rootpage FROM sqlite_master WHERE name = 'HIST_DATA'")[0]["rootpage"];
  const int page_size = query(db_path, "PRAGMA page_size")[0]["page_size"];
  {
    std::fstream file(db_path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(root - 1) * page_size);
    file.write(std::string(16, '\xff').data(), 16);
  }
  const std::string before = file_bytes();
  int exit_code = -1;
  const std::string screen = run_on_terminal({TSANOMALYCTL_PATH, "upgrade", db_path, "--apply"}, exit_code);
  EXPECT_EQ(exit_code, 1) << screen;
  EXPECT_TRUE(contains(screen, "\rCreating index DATA_TO_PROCESS_BY_STATUS on DATA_TO_PROCESS ... done ")) << screen;
  EXPECT_TRUE(contains(screen, "\rCreating index HIST_DATA_BY_STREAM on HIST_DATA ... failed ")) << screen;
  EXPECT_TRUE(contains(screen, "tsanomalyctl upgrade: cannot create index HIST_DATA_BY_STREAM on HIST_DATA "
                               "(database disk image is malformed); nothing was changed"))
      << screen;
  EXPECT_FALSE(contains(screen, "Created")) << screen;
  EXPECT_TRUE(file_bytes() == before);
}

TEST_F(UpgradeToolTest, StatusShowsEachDifferenceOnOneLineWithTheCommandToRun) {
  ASSERT_EQ(ctl({"status", db_path}), 0) << child->err();
  std::istringstream lines(child->out());
  std::vector<std::string> schema_lines;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Schema ", 0) == 0) schema_lines.push_back(line);
  }
  ASSERT_EQ(schema_lines.size(), std::size(kDifferences)) << child->out();
  EXPECT_EQ(child->out().rfind("Pending jobs ", 0), 0u);
  for (size_t i = 0; i + 1 < schema_lines.size(); ++i) {
    EXPECT_TRUE(contains(schema_lines[i], "(run: tsanomalyctl upgrade " + db_path + " --apply)")) << schema_lines[i];
  }
  EXPECT_TRUE(contains(schema_lines.back(), "journal mode delete, not WAL: a reader blocks the product's queue "
                                            "writer"))
      << schema_lines.back();
  EXPECT_TRUE(contains(schema_lines.back(), "(run: tsanomalyctl upgrade " + db_path + " --apply --wal)"));

  ASSERT_EQ(ctl({"upgrade", db_path, "--apply", "--wal"}), 0);
  ASSERT_EQ(ctl({"status", db_path}), 0);
  EXPECT_FALSE(contains(child->out(), "Schema")) << child->out();
}

TEST_F(UpgradeToolTest, UsageErrorsExitTwoAndHelpNamesTheOptions) {
  EXPECT_EQ(ctl({"upgrade"}), 2);
  EXPECT_EQ(ctl({"upgrade", db_path, "--wal"}), 2);
  EXPECT_TRUE(contains(child->err(), "tsanomalyctl upgrade: --wal goes with --apply")) << child->err();
  EXPECT_EQ(ctl({"upgrade", db_path, "--apply", "--busy-timeout", "-1"}), 2);
  EXPECT_TRUE(contains(child->err(), "--busy-timeout takes a whole number from 0 to 600000")) << child->err();
  EXPECT_EQ(ctl({"upgrade", "--help"}), 0);
  EXPECT_EQ(child->out().rfind("usage: tsanomalyctl upgrade DB [--apply [--wal]] [--busy-timeout MS]", 0), 0u);
  EXPECT_EQ(ctl({"--help"}), 0);
  EXPECT_TRUE(contains(child->out(), "  upgrade     compare a database with the detector's schema")) << child->out();
}

// A trigger planted on a detector table stops every verdict; upgrade names
// it (and any other code the schema does not define) and leaves it alone.
TEST_F(UpgradeToolTest, ForeignTriggersAndViewsAreListedAndLeftAsTheyAre) {
  {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);
    db.execute_query("CREATE TRIGGER ERASE AFTER INSERT ON ANOMALY_DATA_FEEDBACK BEGIN DELETE FROM ANOMALY_DATA; END;"
                     "CREATE VIEW \"RECENT\x1b[2J\" AS SELECT * FROM ANOMALY_DATA;"
                     "CREATE TABLE NOTES(n TEXT); CREATE VIEW NOTE_VIEW AS SELECT n FROM NOTES;");
  }
  for (const std::vector<std::string>& args : {std::vector<std::string>{"upgrade", db_path},
                                                std::vector<std::string>{"upgrade", db_path, "--apply"}}) {
    ASSERT_EQ(ctl(args), 0) << child->err();
    const std::string& out = child->out();
    EXPECT_TRUE(contains(out, "Triggers and views the detector's schema does not define")) << out;
    EXPECT_TRUE(contains(out, "  - trigger ERASE on ANOMALY_DATA_FEEDBACK, a table of the detector: no tool writes a "
                              "verdict while it is there\n"))
        << out;
    EXPECT_TRUE(contains(out, "  - view RECENT\\x1b[2J, which reads the detector's tables: no tool writes")) << out;
    EXPECT_TRUE(contains(out, "  - view NOTE_VIEW\n")) << out;
  }
  EXPECT_EQ(query(db_path, "SELECT COUNT(*) AS n FROM sqlite_master WHERE name IN ('ERASE', 'NOTE_VIEW')")[0].at("n").text(),
            "2");
}
