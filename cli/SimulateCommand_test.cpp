// tsanomalyctl simulate, run in process on real SQLite files: what it writes,
// that a seed always writes the same, how it refuses bad input, and that the
// detector finds the anomalies it injects without flagging the normal jobs.
#include "cli/SimulateCommand.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/DebugLog.h"
#include "service/DetectionService.h"
#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

// Standard output and error of one in-process run.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Swaps a stream's buffer for a string buffer while in scope.
class Capture {
 public:
  explicit Capture(std::ostream& stream) : stream_(stream), saved_(stream.rdbuf(buffer_.rdbuf())) {}
  ~Capture() { stream_.rdbuf(saved_); }
  std::string text() const { return buffer_.str(); }

 private:
  std::ostream& stream_;
  std::ostringstream buffer_;
  std::streambuf* saved_;
};

Outcome simulate(std::vector<std::string> args) {
  args.insert(args.begin(), "simulate");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  Capture out(std::cout);
  Capture err(std::cerr);
  Outcome run;
  run.status = run_simulate(static_cast<int>(argv.size()), argv.data());
  run.out = out.text();
  run.err = err.text();
  return run;
}

Rows query(const std::string& path, const std::string& sql) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  Rows rows;
  db.read_data(sql, rows);
  return rows;
}

int number(const std::string& path, const std::string& sql) { return query(path, sql).at(0).begin()->second; }

// Every cell of the simulated tables, in insertion order.
std::string dump(const std::string& path) {
  std::string text;
  for (const char* table : {"HIST_DATA", "DATA_TO_PROCESS", "SIMULATED_ANOMALY"}) {
    for (const auto& row : query(path, std::string("SELECT * FROM ") + table + " ORDER BY rowid")) {
      for (const auto& [column, value] : row) text += column + "=" + value.text() + ";";
      text += "\n";
    }
  }
  return text;
}

class SimulateCommandTest : public ::testing::Test {
 protected:
  std::string db(const std::string& name = "sim.db") const { return dir.file(name); }

  // Fills db(name) and insists that it worked.
  void fill(const std::vector<std::string>& options, const std::string& name = "sim.db") {
    std::vector<std::string> args{db(name)};
    args.insert(args.end(), options.begin(), options.end());
    const Outcome run = simulate(args);
    ASSERT_EQ(run.status, 0) << run.err;
  }

  tsanomaly_test::TempDir dir;
};

TEST_F(SimulateCommandTest, SameSeedAndOptionsGiveIdenticalContent) {
  const std::vector<std::string> options{"--workloads", "6", "--days", "20", "--pending", "18", "--anomalies",
                                         "30", "--streams", "--stream-share", "50", "--seed", "7"};
  fill(options, "a.db");
  fill(options, "b.db");
  std::vector<std::string> other_seed = options;
  other_seed.back() = "8";
  fill(other_seed, "c.db");
  const std::string first = dump(db("a.db"));
  EXPECT_GT(first.size(), 10000u);
  EXPECT_EQ(first, dump(db("b.db")));
  EXPECT_NE(first, dump(db("c.db")));
}

TEST_F(SimulateCommandTest, RowCountsFollowTheOptions) {
  fill({"--workloads", "6", "--days", "12", "--pending", "17", "--anomalies", "30", "--streams", "--stream-share",
        "50"});
  // 3 single-stream workloads, 3 with four streams each, 12 days.
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM HIST_DATA"), (3 + 3 * 4) * 12);
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM DATA_TO_PROCESS"), 17);
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM SIMULATED_ANOMALY"), 5);  // 30 % of 17 = 5.1
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM DATA_TO_PROCESS JOIN SIMULATED_ANOMALY USING (UNIQUE_KEY)"), 5);
  EXPECT_EQ(number(db(), "SELECT COUNT(DISTINCT CLIENT) FROM HIST_DATA"), 6);
}

TEST_F(SimulateCommandTest, SummaryLineCountsWhatWasWritten) {
  const Outcome run = simulate({db(), "--workloads", "4", "--days", "10", "--pending", "8", "--anomalies", "50"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("4 workloads (0 multi-stream)"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("40 history rows, 8 pending jobs, 4 injected anomalies (size_spike 1, "
                         "file_count_collapse 1, dedup_rate_drop 1, duration_blowup 1)"),
            std::string::npos)
      << run.out;
  EXPECT_EQ(run.err, "");  // no progress bar off a terminal
}

TEST_F(SimulateCommandTest, InjectedKindsTakeTurns) {
  fill({"--workloads", "10", "--days", "5", "--pending", "40", "--anomalies", "50"});
  for (const auto& row : query(db(), "SELECT KIND, COUNT(*) AS N FROM SIMULATED_ANOMALY GROUP BY KIND")) {
    EXPECT_EQ(static_cast<int>(row.at("N")), 5) << row.at("KIND").text();
  }
  EXPECT_EQ(number(db(), "SELECT COUNT(DISTINCT KIND) FROM SIMULATED_ANOMALY"), 4);
}

TEST_F(SimulateCommandTest, QueuedJobsHaveEveryCellAndWaitForDetection) {
  fill({"--workloads", "5", "--days", "3", "--pending", "12", "--streams"});
  std::string any_null;
  for (const auto& column : query(db(), "SELECT name FROM pragma_table_info('DATA_TO_PROCESS')")) {
    any_null += (any_null.empty() ? "" : " OR ") + column.at("name").text() + " IS NULL";
  }
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM DATA_TO_PROCESS WHERE " + any_null), 0);
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS <> 0"), 0);
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM HIST_DATA WHERE MODE <> 1 OR USER_IDENTIFIED_CLUSTER <> -1"), 0);
}

TEST_F(SimulateCommandTest, UniqueKeysAreUniqueAcrossHistoryAndQueue) {
  fill({"--workloads", "8", "--days", "15", "--pending", "30", "--streams", "--stream-share", "50"});
  const std::string all_keys = "SELECT UNIQUE_KEY FROM HIST_DATA UNION ALL SELECT UNIQUE_KEY FROM DATA_TO_PROCESS";
  EXPECT_EQ(number(db(), "SELECT COUNT(DISTINCT UNIQUE_KEY) FROM (" + all_keys + ")"),
            number(db(), "SELECT COUNT(*) FROM (" + all_keys + ")"));
  const std::string all_ids = "SELECT JOB_ID FROM HIST_DATA UNION ALL SELECT JOB_ID FROM DATA_TO_PROCESS";
  EXPECT_EQ(number(db(), "SELECT COUNT(DISTINCT JOB_ID) FROM (" + all_ids + ")"),
            number(db(), "SELECT COUNT(*) FROM (" + all_ids + ")"));
}

TEST_F(SimulateCommandTest, MultiStreamWorkloadsRunStreamsOneToFourWithoutAnAsset) {
  fill({"--workloads", "3", "--days", "10", "--pending", "6", "--streams", "--stream-share", "100"});
  for (const char* table : {"HIST_DATA", "DATA_TO_PROCESS"}) {
    const std::string from = std::string(" FROM ") + table;
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from + " WHERE ASSET_ID <> 'NA'"), 0) << table;
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from + " WHERE STREAM_NUMBER NOT BETWEEN 1 AND 4"), 0) << table;
    // The streams of one day are children of one parent job.
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from + " WHERE PARENT_JOB_ID >= JOB_ID"), 0) << table;
  }
  for (const auto& row : query(db(), "SELECT CLIENT, COUNT(DISTINCT STREAM_NUMBER) AS STREAMS, "
                                     "COUNT(DISTINCT PARENT_JOB_ID) AS PARENTS FROM HIST_DATA GROUP BY CLIENT")) {
    EXPECT_EQ(static_cast<int>(row.at("STREAMS")), 4) << row.at("CLIENT").text();
    EXPECT_EQ(static_cast<int>(row.at("PARENTS")), 10) << row.at("CLIENT").text();
  }
}

TEST_F(SimulateCommandTest, SingleStreamWorkloadsHaveAnAssetAndStreamZero) {
  fill({"--workloads", "7", "--days", "5", "--pending", "7"});
  for (const char* table : {"HIST_DATA", "DATA_TO_PROCESS"}) {
    const std::string from = std::string(" FROM ") + table;
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from + " WHERE ASSET_ID = 'NA' OR STREAM_NUMBER <> 0"), 0) << table;
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from + " WHERE PARENT_JOB_ID <> JOB_ID"), 0) << table;
  }
}

TEST_F(SimulateCommandTest, TimesAndIdsAreConsistent) {
  fill({"--workloads", "5", "--days", "30", "--pending", "10", "--streams", "--stream-share", "40"});
  for (const char* table : {"HIST_DATA", "DATA_TO_PROCESS"}) {
    const std::string from = std::string(" FROM ") + table;
    EXPECT_EQ(number(db(), "SELECT COUNT(*)" + from +
                               " WHERE END_TIME <> START_TIME + TOTAL_TIME OR START_TIME <> BACKUP_TIME"
                               " OR TOTAL_TIME <= 0 OR BACKUP_ID <> CLIENT || '_' || BACKUP_TIME"),
              0)
        << table;
  }
  // Job ids grow with time within a workload, into the queue.
  const std::string jobs =
      "SELECT CLIENT, STREAM_NUMBER, BACKUP_TIME, JOB_ID FROM HIST_DATA UNION ALL "
      "SELECT CLIENT, STREAM_NUMBER, BACKUP_TIME, JOB_ID FROM DATA_TO_PROCESS";
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM (" + jobs + ") a JOIN (" + jobs +
                             ") b ON a.CLIENT = b.CLIENT AND a.STREAM_NUMBER = b.STREAM_NUMBER"
                             " WHERE a.BACKUP_TIME < b.BACKUP_TIME AND a.JOB_ID >= b.JOB_ID"),
            0);
  // The queue starts the day after the history, one job per workload per day.
  EXPECT_EQ(number(db(), "SELECT MIN(BACKUP_TIME) - (SELECT MAX(BACKUP_TIME) FROM HIST_DATA) > 0 FROM "
                         "DATA_TO_PROCESS"),
            1);
  EXPECT_EQ(number(db(), "SELECT MAX(N) FROM (SELECT COUNT(*) AS N FROM DATA_TO_PROCESS GROUP BY CLIENT)"), 2);
}

TEST_F(SimulateCommandTest, RefusesADatabaseThatAlreadyHoldsJobs) {
  fill({"--workloads", "2", "--days", "5", "--pending", "3", "--anomalies", "100"});
  const std::string before = dump(db());
  const Outcome again = simulate({db(), "--workloads", "2", "--days", "5", "--pending", "3", "--seed", "9"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("already holds jobs (DATA_TO_PROCESS, HIST_DATA, SIMULATED_ANOMALY)"), std::string::npos)
      << again.err;
  EXPECT_EQ(again.out, "");
  EXPECT_EQ(dump(db()), before);
}

TEST_F(SimulateCommandTest, FillsAnExistingEmptyDetectorDatabase) {
  fill({"--workloads", "2", "--days", "5", "--pending", "0"});
  {
    DBAccess emptied(db(), SQLITE_OPEN_READWRITE);
    emptied.execute_query("DELETE FROM HIST_DATA; DELETE FROM SIMULATED_ANOMALY;");
  }
  fill({"--workloads", "2", "--days", "6", "--pending", "0"});
  EXPECT_EQ(number(db(), "SELECT COUNT(*) FROM HIST_DATA"), 12);
}

TEST_F(SimulateCommandTest, HelpGoesToStandardOutput) {
  const Outcome run = simulate({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, kSimulateHelp);
  EXPECT_EQ(run.err, "");
}

struct BadArguments {
  std::vector<std::string> args;  // "DB" stands for the test's database path
  int status;
  std::string message;
};

TEST_F(SimulateCommandTest, BadArgumentsAreExplainedNeverRun) {
  const BadArguments cases[] = {
      {{}, 2, "missing argument"},
      {{"DB", "other.db"}, 2, "unexpected argument 'other.db'"},
      {{"DB", "--bogus"}, 2, "unknown option --bogus"},
      {{"DB", "--workloads", "0"}, 2, "--workloads takes a whole number from 1 to 20000, not '0'"},
      {{"DB", "--days", "ten"}, 2, "--days takes a whole number from 1 to 3650, not 'ten'"},
      {{"DB", "--anomalies", "101"}, 2, "--anomalies takes a whole number from 0 to 100, not '101'"},
      {{"DB", "--pending", "-1"}, 2, "--pending takes a whole number from 0 to 1000000"},
      {{"DB", "--seed"}, 2, "option --seed needs a value"},
      {{"DB", "--stream-share", "50"}, 2, "--stream-share applies only with --streams"},
      {{"DB", "--workloads", "1", "--pending", "4000"}, 2, "--pending asks for 4000 days of queued jobs"},
      {{""}, 2, "DB must be a file path"},
  };
  for (const BadArguments& bad : cases) {
    std::vector<std::string> args = bad.args;
    for (std::string& arg : args) {
      if (arg == "DB") arg = db();
    }
    const Outcome run = simulate(args);
    EXPECT_EQ(run.status, bad.status) << bad.message;
    EXPECT_NE(run.err.find("tsanomalyctl simulate: " + bad.message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "") << bad.message;
  }
  EXPECT_FALSE(std::ifstream(db()).good()) << "no database file for bad arguments";
}

TEST_F(SimulateCommandTest, UnwritablePathIsARuntimeError) {
  const Outcome run = simulate({dir.file("missing-folder/sim.db")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("tsanomalyctl simulate: cannot fill '" + dir.file("missing-folder/sim.db") + "'"),
            std::string::npos)
      << run.err;
}

// What one detection pass made of a simulated queue.
struct DetectionResult {
  int injected = 0;
  int found = 0;         // injected anomalies that were reported
  int false_alarms = 0;  // normal jobs that were reported
};

DetectionResult detect(const tsanomaly_test::TempDir& dir, const std::string& file) {
  int status = 0;
  open_debug_log(dir.path(), "tsanomalydetect", "tsanomalydetect", 0644, &status);
  EXPECT_EQ(status, 0);
  DetectionResult result;
  {
    DetectionService service(dir.path(), file, 0.5, 3.0, "");
    service.do_detection();
    auto count = [&service](const std::string& sql) {
      Rows rows;
      service.database().read_data(sql, rows);
      return static_cast<int>(rows.at(0).begin()->second);
    };
    result.injected = count("SELECT COUNT(*) FROM SIMULATED_ANOMALY");
    result.found = count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE DETECTION_KEY IN "
                         "(SELECT UNIQUE_KEY FROM SIMULATED_ANOMALY)");
    result.false_alarms = count("SELECT COUNT(*) FROM ANOMALY_DATA WHERE DETECTION_KEY NOT IN "
                                "(SELECT UNIQUE_KEY FROM SIMULATED_ANOMALY)");
  }
  close_debug_log();
  return result;
}

TEST_F(SimulateCommandTest, DetectorFindsTheInjectedAnomaliesAndLeavesNormalJobsAlone) {
  const std::vector<std::vector<std::string>> runs = {
      {"--seed", "1"}, {"--seed", "2"}, {"--seed", "3", "--streams", "--stream-share", "25"}};
  for (const auto& extra : runs) {
    const std::string file = "detect-" + extra[1] + ".db";
    std::vector<std::string> options{"--workloads", "20", "--days", "60", "--pending", "40", "--anomalies", "25"};
    options.insert(options.end(), extra.begin(), extra.end());
    fill(options, file);
    const DetectionResult result = detect(dir, file);
    ASSERT_EQ(result.injected, 10);
    const double recall = static_cast<double>(result.found) / result.injected;
    std::cout << "[ quality  ] seed " << extra[1] << ": recall " << recall << " (" << result.found << "/"
              << result.injected << "), false alarms " << result.false_alarms << " of 30 normal jobs\n";
    EXPECT_GE(recall, 0.8) << "seed " << extra[1];
    EXPECT_LE(result.false_alarms, 2) << "seed " << extra[1];
  }
}

}  // namespace
