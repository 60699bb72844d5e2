// init, anomalies, feedback and status, called in process on real databases.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/DebugLog.h"
#include "platform/LocalTime.h"
#include "service/DetectionService.h"
#include "tests/support/InProcessCommand.h"
#include "tests/support/TempDir.h"
#include "cli/AnomaliesCommand.h"
#include "cli/DetectCommand.h"
#include "cli/FeedbackCommand.h"
#include "cli/InitCommand.h"
#include "cli/StatusCommand.h"
#include "operator/TimeText.h"
#include "operator/Verdict.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using tsanomaly_test::TempDir;

namespace {

using tsanomaly_test::Outcome;
using tsanomaly_test::run;

class OperatorCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    ASSERT_EQ(run(run_init, {db_path}).exit_code, 0);
  }

  // Reports an anomaly through the detector itself, so the payload is real.
  void report(const std::string& client, int job_id, time_t detected, const std::string& key) {
    int status = 0;
    open_debug_log(dir.path(), "tsanomalydetect", "tsanomalydetect", 0644, &status);
    DetectionService service(dir.path(), "anomaly.db", 0.5, 3.0, "");
    service.set_clock([detected] { return detected; });
    Row job;
    job["CLIENT"] = Value(client);
    job["POLICY"] = Value(std::string("pol-" + client));
    job["JOB_ID"] = Value(job_id);
    job["BACKUP_TIME"] = Value(1000);
    job["UNIQUE_KEY"] = Value(key);
    job["DESTINATION_STORAGE_NAME"] = Value(std::string("stu1"));
    DetectionService::AnomalyStats stats{{"IMAGE_SIZE", {1536, 1000, 1200}}};
    service.report_anomaly(job, {1, 3.25}, DetectionService::Rows{}, {}, 1, stats);
    close_debug_log();
  }

  // Queues the reported job as the detector leaves it (processed), so the
  // next pass can learn a false-positive verdict on it.
  void queue(const std::string& key) {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);
    db.execute_query("INSERT INTO DATA_TO_PROCESS VALUES ('i', 1, 'c', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, "
                     "1, 1, 1.0, 0, 'stu', 0, 'vm', '" + key + "', 1)");
  }

  Rows query(const std::string& sql) {
    DBAccess db(db_path, SQLITE_OPEN_READWRITE);
    Rows rows;
    db.read_data(sql, rows);
    return rows;
  }

  TempDir dir;
  std::string db_path = dir.file("anomaly.db");
};

}  // namespace

// The detector's five tables and the alert process's three, nothing else.
TEST_F(OperatorCommandsTest, InitCreatesTheFiveTablesAndTheAlertTablesAndIsRepeatable) {
  std::string names;
  for (auto& row : query("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
    names += std::string(row["name"]) + " ";
  }
  EXPECT_EQ(names,
            "ALERT_CHANNEL ALERT_DELIVERY ALERT_FIRING ANOMALY_DATA ANOMALY_DATA_FEEDBACK DATA_TO_PROCESS DBSCAN_MODEL_PARAMS "
            "HIST_DATA ");
  const Outcome again = run(run_init, {db_path});
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.out, "Detector database ready: " + db_path + "\n");
}

TEST_F(OperatorCommandsTest, InitRefusesAFileWithOtherTablesUnlessForced) {
  const std::string other = dir.file("other.db");
  {
    DBAccess db(other, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query("CREATE TABLE payroll(x)");
  }
  const Outcome refused = run(run_init, {other});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_NE(refused.err.find("already holds other tables (payroll)"), std::string::npos) << refused.err;
  Rows tables;
  DBAccess(other, SQLITE_OPEN_READWRITE).read_data("SELECT name FROM sqlite_master WHERE type = 'table'", tables);
  EXPECT_EQ(tables.size(), 1u);
  EXPECT_EQ(run(run_init, {other, "--force"}).exit_code, 0);
}

TEST_F(OperatorCommandsTest, InitOnAFileThatIsNotSqliteFails) {
  TempDir::write(dir.file("junk.db"), std::string(4096, 'x'));
  const Outcome outcome = run(run_init, {dir.file("junk.db")});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.err.find("file is not a database"), std::string::npos) << outcome.err;
}

TEST_F(OperatorCommandsTest, InitIntoAMissingFolderFails) {
  EXPECT_EQ(run(run_init, {dir.file("no/such/x.db")}).exit_code, 1);
}

TEST_F(OperatorCommandsTest, UsageErrorsExitTwoWithAPointerToHelp) {
  for (auto command : {run_init, run_anomalies, run_feedback, run_status}) {
    const Outcome missing = run(command, {});
    EXPECT_EQ(missing.exit_code, 2);
    EXPECT_NE(missing.err.find("missing argument"), std::string::npos);
    EXPECT_NE(missing.err.find("--help' for usage."), std::string::npos);
    const Outcome unknown = run(command, {db_path, "x", "y", "--bogus"});
    EXPECT_EQ(unknown.exit_code, 2);
  }
}

TEST_F(OperatorCommandsTest, EveryCommandHasHelp) {
  for (auto command : {run_init, run_anomalies, run_feedback, run_status}) {
    const Outcome help = run(command, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_EQ(help.out.rfind("usage: tsanomalyctl ", 0), 0u) << help.out;
  }
}

TEST_F(OperatorCommandsTest, DetectHelpListsTheServiceOptions) {
  for (const char* asked : {"-h", "--help"}) {
    const Outcome help = run(run_detect, {asked});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_EQ(help.out, kDetectHelp);
    EXPECT_NE(help.out.find("  -min_samples N"), std::string::npos) << help.out;
  }
}

TEST_F(OperatorCommandsTest, DetectRefusesAnUnknownOptionAsTheOtherCommandsDo) {
  const Outcome misspelt = run(run_detect, {"-database_location", dir.path(), "-databse_file_name", "anomaly.db"});
  EXPECT_EQ(misspelt.exit_code, 2);
  EXPECT_EQ(misspelt.err,
            "tsanomalyctl detect: unknown option -databse_file_name\nRun 'tsanomalyctl detect --help' for usage.\n");
  EXPECT_EQ(misspelt.out, "");
  EXPECT_EQ(run(run_detect, {"-database_location", dir.path(), "-verbose"}).exit_code, 2);
}

TEST_F(OperatorCommandsTest, AnomaliesOfAnEmptyDatabase) {
  const Outcome outcome = run(run_anomalies, {db_path});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.out, "No anomalies reported.\n");
}

TEST_F(OperatorCommandsTest, AnomaliesAreAnAlignedTableNewestFirst) {
  report("web01", 7, 1700000000, "k7");
  report("db-oracle-03", 8, 1700003600, "k8");
  const Outcome outcome = run(run_anomalies, {db_path});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "ID      CLIENT        POLICY            DETECTED             SUMMARY             SCORE\n"
            "8_1000  db-oracle-03  pol-db-oracle-03  2023-11-14 23:13:20  Anomaly image size   3.25\n"
            "7_1000  web01         pol-web01         2023-11-14 22:13:20  Anomaly image size   3.25\n");
}

TEST_F(OperatorCommandsTest, AnomaliesFilterByClientSinceAndLimit) {
  report("web01", 7, 1700000000, "k7");
  report("db02", 8, 1700003600, "k8");
  report("web01", 9, 1700007200, "k9");
  const Outcome client = run(run_anomalies, {db_path, "--client", "WEB01", "--json"});
  ASSERT_EQ(client.exit_code, 0);
  EXPECT_EQ(std::count(client.out.begin(), client.out.end(), '\n'), 2);
  EXPECT_EQ(client.out.find("db02"), std::string::npos);
  const Outcome since = run(run_anomalies, {db_path, "--since", "2023-11-14 23:00", "--json"});
  EXPECT_EQ(std::count(since.out.begin(), since.out.end(), '\n'), 2);
  const Outcome limited = run(run_anomalies, {db_path, "--limit", "1", "--json"});
  EXPECT_EQ(std::count(limited.out.begin(), limited.out.end(), '\n'), 1);
  EXPECT_NE(limited.out.find("\"id\":\"9_1000\""), std::string::npos) << limited.out;
}

TEST_F(OperatorCommandsTest, AnomaliesAsJsonLinesCarryThePayload) {
  report("web01", 7, 1700000000, "k7");
  const Outcome outcome = run(run_anomalies, {db_path, "--json"});
  EXPECT_EQ(outcome.out.rfind("{\"id\":\"7_1000\",\"client\":\"web01\",\"policy\":\"pol-web01\","
                              "\"detection_time\":\"2023-11-14 22:13:20\",\"detection_epoch\":1700000000,"
                              "\"summary\":\"Anomaly image size\",\"score\":\"3.25\",\"payload\":{",
                              0),
            0u)
      << outcome.out;
  EXPECT_NE(outcome.out.find("\"anomalyImageSize\":\"1.50 MB (Usual: 0.98 MB - 1.17 MB)\""), std::string::npos);
}

TEST_F(OperatorCommandsTest, AnomaliesRejectABadDateOrLimit) {
  EXPECT_EQ(run(run_anomalies, {db_path, "--since", "yesterday"}).exit_code, 2);
  EXPECT_EQ(run(run_anomalies, {db_path, "--since", "2023-02-30"}).exit_code, 2);
  EXPECT_EQ(run(run_anomalies, {db_path, "--limit", "0"}).exit_code, 2);
  EXPECT_EQ(run(run_anomalies, {db_path, "--limit", "ten"}).exit_code, 2);
}

TEST_F(OperatorCommandsTest, AnomaliesOfAMissingOrForeignFileFail) {
  const Outcome missing = run(run_anomalies, {dir.file("nope.db")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("cannot read database"), std::string::npos);
  {
    DBAccess db(dir.file("other.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query("CREATE TABLE t(x)");
  }
  const Outcome foreign = run(run_anomalies, {dir.file("other.db")});
  EXPECT_EQ(foreign.exit_code, 1);
  EXPECT_NE(foreign.err.find("has no ANOMALY_DATA table"), std::string::npos);
  TempDir::write(dir.file("junk.db"), std::string(4096, 'x'));
  EXPECT_EQ(run(run_anomalies, {dir.file("junk.db")}).exit_code, 1);
}

TEST_F(OperatorCommandsTest, FeedbackRecordsTheFalsePositiveVerdictOnce) {
  report("web01", 7, 1700000000, "k7");
  queue("k7");
  const Outcome first = run(run_feedback, {db_path, "7_1000"});
  EXPECT_EQ(first.exit_code, 0) << first.err;
  Rows rows = query("SELECT ANOMALY_UNIQUE_ID, FEEDBACK FROM ANOMALY_DATA_FEEDBACK");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["ANOMALY_UNIQUE_ID"] == "7_1000");
  EXPECT_TRUE(rows[0]["FEEDBACK"] == "1");
  const Outcome second = run(run_feedback, {db_path, "7_1000"});
  EXPECT_EQ(second.exit_code, 0);
  EXPECT_NE(second.out.find("already reported"), std::string::npos);
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 1);
}

// An anomaly the console acknowledged (a real one, handled) must not be
// learned as normal history through the command line either.
TEST_F(OperatorCommandsTest, FeedbackOnAnAcknowledgedAnomalyIsRefusedAsTheConsoleRefusesIt) {
  report("web01", 7, 1700000000, "k7");
  queue("k7");
  ASSERT_EQ(give_verdict(db_path, "7_1000", Verdict::acknowledged), VerdictOutcome::recorded);
  const Outcome outcome = run(run_feedback, {db_path, "7_1000"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.err.find(verdict_refusal(VerdictOutcome::conflict)), std::string::npos) << outcome.err;
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 0);
}

TEST_F(OperatorCommandsTest, FeedbackForAJobThatLeftTheQueueIsRefused) {
  report("web01", 7, 1700000000, "k7");
  const Outcome outcome = run(run_feedback, {db_path, "7_1000"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.err.find("the job is no longer in the detection queue, so no pass could learn it"),
            std::string::npos)
      << outcome.err;
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 0);
}

// Acknowledging a false positive is refused with the same words.
TEST_F(OperatorCommandsTest, TheOtherVerdictIsRefusedWhicheverCameFirst) {
  report("web01", 7, 1700000000, "k7");
  queue("k7");
  ASSERT_EQ(run(run_feedback, {db_path, "7_1000"}).exit_code, 0);
  EXPECT_EQ(give_verdict(db_path, "7_1000", Verdict::acknowledged), VerdictOutcome::conflict);
  EXPECT_EQ(give_verdict(db_path, "7_1000", Verdict::false_positive), VerdictOutcome::already);
  EXPECT_EQ(give_verdict(db_path, "nope", Verdict::false_positive), VerdictOutcome::unknown);
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA WHERE ANOMALY_STATE = 1")[0]["n"], 0);
}

TEST_F(OperatorCommandsTest, FeedbackForAnUnknownIdIsAClearError) {
  const Outcome outcome = run(run_feedback, {db_path, "99_1"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.err.find("no anomaly '99_1'"), std::string::npos);
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 0);
}

TEST_F(OperatorCommandsTest, StatusCountsQueueHistoryModelsAndAnomalies) {
  DBAccess db(db_path, SQLITE_OPEN_READWRITE);
  db.execute_query(
      "INSERT INTO DATA_TO_PROCESS VALUES ('i', 1, 'c', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, 1, 1, 1.0, 0, "
      "'stu', 0, 'vm', 'q1', 0), ('i', 1, 'c', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, 1, 1, 1.0, 0, 'stu', "
      "0, 'vm', 'q2', 1);"
      "INSERT INTO HIST_DATA VALUES ('i', 1, 'c', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, 1, 1, 1.0, 1, -1, "
      "'stu', 0, 'vm', 'h1'), ('i', 2, 'c', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, 1, 1, 1.0, 1, -1, 'stu', "
      "0, 'vm', 'h2'), ('i', 2, 'c2', 'p', 't', 's', 'n', 'a', 1, 1.0, 1, 1, 1.0, 1, 1, 1, 1.0, 1, -1, 'stu', 0, "
      "'vm', 'h3');"
      "INSERT INTO DBSCAN_MODEL_PARAMS VALUES ('c', 'p', 't', 's', 'n', 'a', 2.5, 1, 'stu', 'vm');");
  const time_t now = std::time(nullptr);
  report("web01", 1, now - 3600, "k1");
  report("web01", 2, now - 3 * 86400, "k2");
  report("web01", 3, now - 30 * 86400, "k3");
  const Outcome outcome = run(run_status, {db_path});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "Pending jobs                1\n"
            "Processed, awaiting verdict 1\n"
            "History rows                3\n"
            "Workloads                   2\n"
            "Calibrated models           1\n"
            "Anomalies, last 24 hours    1\n"
            "Anomalies, last 7 days      2\n"
            "Anomalies, total            3\n");
}

TEST(TimeText, ParsesDatesAndDateTimesAndRejectsTheRest) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(TimeText::parse_local("2023-11-14"), 1699920000);
  EXPECT_EQ(TimeText::parse_local("2023-11-14 22:13"), 1700000000 - 20);
  EXPECT_EQ(TimeText::parse_local("2023-11-14 22:13:20"), 1700000000);
  EXPECT_EQ(TimeText::parse_local("2023-02-29"), std::nullopt);
  EXPECT_EQ(TimeText::parse_local("2023-11-14 25:00"), std::nullopt);
  EXPECT_EQ(TimeText::parse_local("2023-11-14x"), std::nullopt);
  EXPECT_EQ(TimeText::parse_local(""), std::nullopt);
  EXPECT_EQ(local_time_text(1700000000), "2023-11-14 22:13:20");
}

// A trigger planted on a table a verdict writes: one that spins would hold
// the write lock for ever, one that deletes would erase the detections. The
// verdict is refused, by the command line and by every other tool, and the
// trigger never runs.
TEST_F(OperatorCommandsTest, NoVerdictIsWrittenWhileAForeignTriggerSitsOnADetectorTable) {
  report("web01", 7, 1700000000, "k7");
  queue("k7");
  const struct {
    const char* create;
    const char* drop;
  } planted[] = {
      {"CREATE TRIGGER ERASE AFTER INSERT ON ANOMALY_DATA_FEEDBACK BEGIN DELETE FROM ANOMALY_DATA; END",
       "DROP TRIGGER ERASE"},
      {"CREATE TRIGGER SPIN AFTER UPDATE ON anomaly_data BEGIN SELECT count(*) FROM (WITH RECURSIVE n(i) AS "
       "(SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT i FROM n); END",
       "DROP TRIGGER SPIN"},
      {"CREATE VIEW SHADOW AS SELECT * FROM ANOMALY_DATA", "DROP VIEW SHADOW"}};
  for (const auto& code : planted) {
    query(code.create);
    const Outcome outcome = run(run_feedback, {db_path, "7_1000"});
    EXPECT_EQ(outcome.exit_code, 1) << code.create;
    EXPECT_NE(outcome.err.find(verdict_refusal(VerdictOutcome::foreign_code)), std::string::npos) << outcome.err;
    EXPECT_EQ(give_verdict(db_path, "7_1000", Verdict::acknowledged), VerdictOutcome::foreign_code);
    EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA")[0]["n"], 1);
    EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 0);
    query(code.drop);
  }
  EXPECT_EQ(run(run_feedback, {db_path, "7_1000"}).exit_code, 0);
  EXPECT_EQ(query("SELECT COUNT(*) AS n FROM ANOMALY_DATA_FEEDBACK")[0]["n"], 1);
}

// Code on a table the detector does not own is no reason to refuse.
TEST_F(OperatorCommandsTest, ATriggerOnAnotherTableDoesNotStopAVerdict) {
  report("web01", 7, 1700000000, "k7");
  query("CREATE TABLE PRODUCT_NOTES(n TEXT)");
  query("CREATE TRIGGER NOTE AFTER INSERT ON PRODUCT_NOTES BEGIN SELECT 1; END");
  EXPECT_EQ(give_verdict(db_path, "7_1000", Verdict::acknowledged), VerdictOutcome::recorded);
}
