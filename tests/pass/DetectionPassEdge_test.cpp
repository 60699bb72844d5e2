// Settings, validation rules and corner cases of the detection pass, and how
// it behaves when the database fails under it.
#include <jansson.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "tests/pass/PassFixture.h"

namespace pass_test {
namespace {

using DetectionPassSettings = PassFixture;
using DetectionPassRules = PassFixture;
using DetectionPassCornerCases = PassFixture;
using DetectionPassFailures = PassFixture;

// The three eps lines of a normal job judged with a stored eps of 0.8 under
// the given sensitivity setting.
class DetectionPassSensitivity : public PassFixture {
 protected:
  Strings eps_lines(const std::string& sensitivity) {
    write_ini("[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=" + sensitivity + "\n");
    usual_history(40);
    model("0.8");
    queue(job("k1"));
    Strings found;
    for (const std::string& line : pass()) {
      if (line.find("eps = ") != std::string::npos || line.find("sensitivity") != std::string::npos) {
        found.push_back(line);
      }
    }
    EXPECT_EQ(queue_state(), Strings{}) << "the usual job is accepted whatever the sensitivity";
    return found;
  }
};

TEST_F(DetectionPassSensitivity, AboveHundredIsLoggedAsHundredAndDoublesEps) {
  EXPECT_EQ(eps_lines("150"), (Strings{info("Calculated eps = 0.800000 "), info("Using sensitivity parameter 100"),
                                       info("Adjusted eps = 1.600000 ")}));
}

TEST_F(DetectionPassSensitivity, BelowMinusNinetyNineIsLoggedAsMinusNinetyNineAndShrinksEpsToOneHundredth) {
  EXPECT_EQ(eps_lines("-200"), (Strings{info("Calculated eps = 0.800000 "), info("Using sensitivity parameter -99"),
                                        info("Adjusted eps = 0.008000 ")}));
}

TEST_F(DetectionPassSensitivity, ZeroLeavesEpsUnchanged) {
  EXPECT_EQ(eps_lines("0"), (Strings{info("Calculated eps = 0.800000 "), info("Using sensitivity parameter 0"),
                                     info("Adjusted eps = 0.800000 ")}));
}

TEST_F(DetectionPassSensitivity, PositiveValueWidensEpsByThatPercentage) {
  EXPECT_EQ(eps_lines("25"), (Strings{info("Calculated eps = 0.800000 "), info("Using sensitivity parameter 25"),
                                      info("Adjusted eps = 1.000000 ")}));
}

TEST_F(DetectionPassSensitivity, NonNumericValueReadsAsZero) {
  EXPECT_EQ(eps_lines("high"), (Strings{info("Calculated eps = 0.800000 "), info("Using sensitivity parameter 0"),
                                        info("Adjusted eps = 0.800000 ")}));
}

TEST_F(DetectionPassSettings, MinimumObservationsBelowThirtyAreRaisedToThirty) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=10\n");
  usual_history(29);
  model("0.5");
  queue(job("k1"));

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));
  EXPECT_EQ(history_row("k1")["MODE"], "1");
}

TEST_F(DetectionPassSettings, MinimumObservationsAboveThirtyAreTakenAsConfigured) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=41\n");
  usual_history(40);
  model("0.5");
  queue(job("k1"));

  EXPECT_TRUE(contains(pass(), info("Not enough data for training for client - c1 , policy - p1. ")));
}

TEST_F(DetectionPassSettings, NegativeMaximumObservationsBecomeThreeThousand) {
  // A multi-stream workload whose highest stream number is 101 asks for
  // 101 x 30 = 3030 rows, capped by the maximum: exactly 3000 are required.
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMAX_OBSERVATIONS_FOR_TRAINING=-5\n");
  sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2999) "
      "INSERT INTO HIST_DATA SELECT 'img', i, 'c1', 'p1', 'Standard', 'FULL', 'daily', 'app', 100, 1024, 1000 + i, "
      "41, 2048, 999000, 999600, 600, 2.5, 1, -1, 'stu1', 101, 'NA', 'm' || i FROM n");
  model("0.5", {{"ASSET_ID", "NA"}});
  const Cells multi_stream = {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "101"}};

  // 2999 rows are one too few ...
  queue(job("k1", multi_stream));
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));
  ASSERT_EQ(count("HIST_DATA"), 3000);

  // ... and with k1 in the history, 3000 are enough.
  queue(job("k2", multi_stream + Cells{{"JOB_ID", "43"}}));
  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000", 43),
                            {info("Anomaly not detected.")}}));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(DetectionPassSettings, MaximumObservationsBelowTheMinimumLowerTheRequiredSize) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nMAX_OBSERVATIONS_FOR_TRAINING=20\n");
  usual_history(25);
  model("0.5");
  queue(job("k1"));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Anomaly not detected.")}}));
}

TEST_F(DetectionPassSettings, MultiStreamJobNeedsTheMinimumTimesTheHighestStreamNumber) {
  // Streams 1 and 2 with 20 rows each: 2 x 30 = 60 rows are required.
  usual_history(20, {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "1"}}, "s1-");
  usual_history(20, {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "2"}}, "s2-");
  queue(job("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "2"}}));

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(DetectionPassSettings, DaysZeroMeansAYearAndAGapOfExactlyAYearIsNotAccepted) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=0\n");
  usual_history(40);  // last backup at 40
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 31536000)}}));

  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
  EXPECT_FALSE(contains(lines, info("Valid record considered since current backup done after 365 days.")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(anomaly_rows(), Strings{"42_31536040|0|k1|c1|1700000000"});
}

TEST_F(DetectionPassSettings, DaysZeroMeansAYearAndAGapOfOneSecondMoreIsAccepted) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=0\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 31536001)}}));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Valid record considered since current backup done after 365 days.")}}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
}

TEST_F(DetectionPassSettings, ConfiguredDaysGiveTheirOwnGapAndAreNamedInTheLog) {
  write_ini("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=7\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 604800)}}));
  queue(job("k2", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 604801)}, {"JOB_ID", "43"}}));

  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
  EXPECT_TRUE(contains(lines, info("Valid record considered since current backup done after 7 days.")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(history_row("k2")["JOB_ID"], "43");
}

TEST_F(DetectionPassSettings, DayCountBeyondThe32BitRangeWrapsAndAcceptsAnyLaterBackup) {
  // 24856 x 86400 = 2147558400 wraps to -2147408896 seconds, so every gap
  // larger than that is long enough, even one of a single second.
  write_ini("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=24856\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", "41"}}));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Valid record considered since current backup done after 24856 days.")}}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
}

TEST_F(DetectionPassSettings, DayCountJustInsideThe32BitRangeDoesNotWrap) {
  // 24855 x 86400 = 2147472000 still fits: a one-second gap is too short.
  write_ini("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=24855\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", "41"}}));

  EXPECT_TRUE(contains(pass(), info("Anomaly detected for job 42")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
}

TEST_F(DetectionPassSettings, LogModelDataTwoLogsNoModelData) {
  write_ini("[META_DATA]\nLOG_MODEL_DATA=2\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Anomaly detected for job 42"), info("Closest cluster for this anomaly 1"),
                             info("Closest cluster distance for this anomaly 14.495689")}}));
}

TEST_F(DetectionPassSettings, LogModelDataOneLogsLabelsStandardisedMatrixAndRawObservation) {
  write_ini("[META_DATA]\nLOG_MODEL_DATA=1\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));

  Strings model_data = {info("Cluster Assignments"), info("0,-1")};
  for (int i = 1; i <= 40; ++i) model_data.push_back(info(std::to_string(i) + ",1"));
  model_data.push_back(info("Data for anomaly detected."));
  // sqrt(40) and -1/sqrt(40) in six significant digits; DEDUP_RATE lies on
  // the other side.
  model_data.push_back(info("6.32456,6.32456,6.32456,6.32456,-6.32456,"));
  for (int i = 1; i <= 40; ++i) model_data.push_back(info("-0.158114,-0.158114,-0.158114,-0.158114,0.158114,"));
  model_data.push_back(info("Current observation 5000,10240,20480,6000,0.5,"));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            model_data,
                            {info("Anomaly detected for job 42"), info("Closest cluster for this anomaly 1"),
                             info("Closest cluster distance for this anomaly 14.495689")}}));
}

TEST_F(DetectionPassSettings, DisabledFeaturesAreLeftOutOfTheObservationAndTheMatrix) {
  write_ini("[META_DATA]\nLOG_MODEL_DATA=1\n[DISABLE_FEATURE_PER_POLICY_TYPE]\nSTANDARD=image_size,TOTAL_TIME\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));

  // Entry names and listed features match in any letter case.
  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("6.32456,6.32456,-6.32456,")));
  EXPECT_TRUE(contains(lines, info("Current observation 5000,20480,0.5,")));
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
}

TEST_F(DetectionPassSettings, ConfigurationIsReadAfreshAtEveryPass) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=c1\n");
  queue(job("k1"));
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Ignoring client 'c1' for detection as per configuration.")}));

  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=c2\n");
  queue(job("k2", {{"CLIENT", "c2"}, {"JOB_ID", "43"}}));
  queue(job("k3", {{"JOB_ID", "44"}, {"BACKUP_TIME", "1000001"}}));
  // c1 is judged now: one row of history is too little.
  const Strings second = pass();
  EXPECT_EQ(second.size(), 5u);
  EXPECT_TRUE(contains(second, info("Ignoring client 'c2' for detection as per configuration.")));
  EXPECT_TRUE(contains(second, info("Getting training set for detection client - c1, policy - p1 and job - 44.")));
  EXPECT_TRUE(contains(second, info("Not enough data for training for client - c1 , policy - p1. ")));
  EXPECT_FALSE(contains(second, info("Ignoring client 'c1' for detection as per configuration.")));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 3);
}

TEST_F(DetectionPassCornerCases, ExcludedClientMatchesRecordsInAnyLetterCase) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=other,ClientA\n");
  queue(job("k1", {{"CLIENT", "clienta"}}));
  queue(job("k2", {{"CLIENT", "ClientA"}}));
  queue(job("k3", {{"CLIENT", "CLIENTA"}}));
  queue(job("k4", {{"CLIENT", "ClientAB"}}));

  const Strings lines = pass();
  EXPECT_EQ(lines.size(), 5u);
  EXPECT_TRUE(contains(lines, info("Ignoring client 'clienta' for detection as per configuration.")));
  EXPECT_TRUE(contains(lines, info("Ignoring client 'ClientA' for detection as per configuration.")));
  EXPECT_TRUE(contains(lines, info("Ignoring client 'CLIENTA' for detection as per configuration.")));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 4);
}

const char* const kStreamCount =
    "SELECT COUNT(*)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
    "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
    "SCHEDULE_NAME            = ? AND  STREAM_NUMBER            = ? ";

TEST_F(DetectionPassCornerCases, StreamNumberZeroNeverReachesTheStreamCheck) {
  queue(job("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "0"}}));
  trace_sql();
  // No history at all: accepted silently, not with the stream message.
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));
  EXPECT_FALSE(contains(traced, kStreamCount));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(DetectionPassCornerCases, LowerCaseAssetNaIsNotAMultiStreamJob) {
  queue(job("k1", {{"ASSET_ID", "na"}, {"STREAM_NUMBER", "3"}}));
  trace_sql();
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));
  EXPECT_FALSE(contains(traced, kStreamCount));
  EXPECT_EQ(history_row("k1")["ASSET_ID"], "na");
}

TEST_F(DetectionPassCornerCases, MultiStreamJobAsksForItsStreamHistory) {
  queue(job("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "3"}}));
  trace_sql();
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Not enough data for training for client - c1 , policy - p1")}));
  EXPECT_TRUE(contains(traced, kStreamCount));
}

TEST_F(DetectionPassCornerCases, WithoutAStoredModelTheCommandLineEpsIsUsed) {
  // Calibration runs, but its row never lands (the table ignores inserts),
  // so the pass finds no stored eps and falls back to the service's own.
  sql("CREATE TRIGGER keep_model_table_empty BEFORE INSERT ON DBSCAN_MODEL_PARAMS BEGIN SELECT RAISE(IGNORE); END;");
  usual_history(40);
  queue(job("k1"));

  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("EPS value = 2.500000")));
  EXPECT_TRUE(contains(lines, info("Calculated eps = 0.500000 ")));
  EXPECT_TRUE(contains(lines, info("Adjusted eps = 0.500000 ")));
  EXPECT_TRUE(contains(lines, info("Anomaly not detected.")));
  EXPECT_EQ(model_rows(), Strings{});
}

TEST_F(DetectionPassCornerCases, EmptyQueueLogsOnlyTheTwoSetUpLines) {
  usual_history(40);
  model("0.5");
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));
  EXPECT_EQ(count("HIST_DATA"), 40);
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
}

TEST_F(DetectionPassCornerCases, MissingConfigurationFileLeavesTheDefaultsInForce) {
  ASSERT_EQ(std::remove(ini_path().c_str()), 0);
  usual_history(29);
  model("0.5");
  queue(job("k1"));
  queue(job("k2", {{"CLIENT", "c2"}, {"JOB_ID", "43"}}));

  // Nothing excluded, and 30 observations are required.
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(DetectionPassCornerCases, ProcessedJobsAreNotJudgedAgain) {
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(count("HIST_DATA"), 0);
}

TEST_F(DetectionPassCornerCases, QueuedUserVerdictNeverReachesTheHistoryThroughThePass) {
  usual_history(40);
  model("0.5");
  queue(job("k1", {{"USER_IDENTIFIED_CLUSTER", "7"}}));
  pass();
  EXPECT_EQ(history_row("k1")["USER_IDENTIFIED_CLUSTER"], "-1");
}

TEST_F(DetectionPassCornerCases, HistoryKeepsIntegerColumnsAsIntegers) {
  queue(job("k1", {{"NUM_FILES", "12.9"}}));
  pass();
  EXPECT_EQ(history_row("k1")["NUM_FILES"], "12");
}

TEST_F(DetectionPassRules, UserConfirmedRowWithClusterZeroCountsAsConfirmed) {
  usual_history(40);
  history("u1", kFarFeatures + Cells{{"BACKUP_TIME", "41"}, {"USER_IDENTIFIED_CLUSTER", "0"}});
  model("0.5");
  queue(job("k1", kFarFeatures));

  const Strings lines = pass();
  EXPECT_TRUE(contains(lines, info("Valid record considered based on user feedback.")));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(DetectionPassRules, UserConfirmedRowFartherThanEpsDoesNotSaveTheJob) {
  usual_history(40);
  // Confirmed, but half-way between the usual jobs and this one.
  history("u1", {{"BACKUP_TIME", "41"}, {"USER_IDENTIFIED_CLUSTER", "1"}, {"NUM_FILES", "2500"}});
  model("0.5");
  queue(job("k1", kFarFeatures));

  const Strings lines = pass();
  EXPECT_FALSE(contains(lines, info("Valid record considered based on user feedback.")));
  EXPECT_TRUE(contains(lines, info("Anomaly detected for job 42")));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
}

TEST_F(DetectionPassRules, WithoutAnyClusterTheAnomalyIsMeasuredAgainstEveryTrainingRow) {
  // At a hundredth of eps no two history rows are neighbours: everything is
  // noise, there is no nearest cluster, and the usual range is taken over
  // all noise rows of the training set (never over the job itself).
  write_ini("[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=-99\n");
  for (int i = 0; i < 40; ++i) {
    history("h" + std::to_string(i + 1), {{"BACKUP_TIME", std::to_string(i + 1)},
                                          {"NUM_FILES", std::to_string(100 + i)},
                                          {"IMAGE_SIZE", std::to_string(1000 + i)}});
  }
  model("0.5");
  queue(job("k1", {{"NUM_FILES", "120"}, {"IMAGE_SIZE", "10240"}}));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", -99, "0.005000"),
                            {info("Anomaly detected for job 42"), info("Closest cluster for this anomaly -1"),
                             info("Closest cluster distance for this anomaly 2147483647.000000")}}));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  json_t* attributes = json_object_get(root, "Attributes");
  EXPECT_EQ(json_member(attributes, "anomalyImageSize"), "10.00 MB (Usual: 0.98 MB - 1.01 MB)");
  EXPECT_EQ(json_member(attributes, "anomalyBackupFilesCount"), "<missing>");
  EXPECT_EQ(json_member(attributes, "summary"), "Anomaly image size");
  EXPECT_EQ(json_member(attributes, "count"), "1");
  EXPECT_EQ(json_member(attributes, "score"), "2147483647.00");
  json_decref(root);
}

TEST_F(DetectionPassRules, SecondReportOfTheSameJobKeepsTheFirstAnomaly) {
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  // The same job and backup time queued again under another key, larger.
  queue(job("k2", kFarFeatures + Cells{{"NUM_FILES", "9000"}}));

  const Strings lines = pass();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), info("Anomaly detected for job 42")), 2);
  EXPECT_EQ(queue_state(), (Strings{"k1:1", "k2:1"}));
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(json_member(json_object_get(root, "Attributes"), "anomalyBackupFilesCount"), "5000 (Usual: 100 - 100)");
  json_decref(root);
}

TEST_F(DetectionPassRules, LongGapIsMeasuredFromTheLatestBackupOfTheSameStorage) {
  usual_history(40);
  // A later backup of the same workload on another storage does not count.
  history("other", {{"BACKUP_TIME", "31536000"}, {"DESTINATION_STORAGE_NAME", "stu2"}});
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 31536001)}}));

  EXPECT_TRUE(contains(pass(), info("Valid record considered since current backup done after 365 days.")));
}

// A fallback training set (no history on the job's storage) with only the two
// fallback features enabled, so the matrix is consistent.
class DetectionPassFallbackTrainingSet : public PassFixture {
 protected:
  void SetUp() override {
    PassFixture::SetUp();
    write_ini("[DISABLE_FEATURE_PER_POLICY_TYPE]\nStandard=kb_transferred,total_time,dedup_rate\n");
    model("0.5");
  }

  Strings fallback_detection_lines() {
    return {info("Getting training set for detection client - c1, policy - p1 and job - 42."),
            info("Detection using historical data."),
            info("Completed getting training data set for detection."),
            info("Preparing input data for detection."),
            info("Completed preparing input data for detection."),
            info("Calling StandardizeData."),
            info("Completed StandardizeData activity."),
            info("Calculated eps = 0.500000 "),
            info("Using sensitivity parameter 0"),
            info("Adjusted eps = 0.500000 "),
            info("Calling DBScan for detection for job 42"),
            info("Done detection.")};
  }
};

TEST_F(DetectionPassFallbackTrainingSet, OutlierIsJudgedOnFileCountAndImageSizeOnly) {
  usual_history(40, {{"DESTINATION_STORAGE_NAME", "stu2"}});
  queue(job("k1", kFarFeatures));

  // Two columns sqrt(40) + 1/sqrt(40) apart: 41/sqrt(20).
  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            fallback_detection_lines(),
                            {info("Anomaly detected for job 42"), info("Closest cluster for this anomaly 1"),
                             info("Closest cluster distance for this anomaly 9.167879")}}));
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  // TOTAL_TIME, KB_TRANSFERRED and DEDUP_RATE are far off too, but the
  // fallback set does not judge them.
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  json_t* attributes = json_object_get(root, "Attributes");
  EXPECT_EQ(json_member(attributes, "summary"), "Anomaly image size,Backup files count");
  EXPECT_EQ(json_member(attributes, "count"), "2");
  EXPECT_EQ(json_member(attributes, "anomalyImageSize"), "10.00 MB (Usual: 1.00 MB - 1.00 MB)");
  EXPECT_EQ(json_member(attributes, "anomalyBackupFilesCount"), "5000 (Usual: 100 - 100)");
  EXPECT_EQ(json_member(attributes, "anomalyTimeTaken"), "<missing>");
  EXPECT_EQ(json_member(attributes, "anomalyDataTransferred"), "<missing>");
  EXPECT_EQ(json_member(attributes, "anomalyDeduplicationRatio"), "<missing>");
  EXPECT_EQ(json_member(attributes, "score"), "9.17");
  EXPECT_EQ(json_member(attributes, "storageName"), "stu1");
  json_decref(root);
}

TEST_F(DetectionPassFallbackTrainingSet, OutlierLooksUpItsLastBackupUnderStorageNa) {
  // The last backup on stu2 was 60 s ago, but the look-up asks for storage
  // "NA", finds nothing and reads the empty maximum as 0.
  usual_history(40, {{"DESTINATION_STORAGE_NAME", "stu2"}, {"BACKUP_TIME", "1000000000"}});
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", "1000000060"}}));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            fallback_detection_lines(),
                            {info("Valid record considered since current backup done after 365 days.")}}));
  EXPECT_EQ(queue_state(), Strings{});
}

// ---- failures --------------------------------------------------------------

TEST_F(DetectionPassFailures, FailingFeedbackStepIsLoggedAndThePassGoesOn) {
  sql("DROP TABLE ANOMALY_DATA_FEEDBACK");
  queue(job("k1"));

  EXPECT_EQ(pass(), (Strings{info("Error occurred during incorporating user feedback into training set."), kSetUp1,
                             kSetUp2}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 1);
}

TEST_F(DetectionPassFailures, FailingQueueReadEndsThePass) {
  sql("DROP TABLE DATA_TO_PROCESS");
  EXPECT_EQ(pass(), (Strings{kSetUp1, info("Could not get data for detection.")}));
}

TEST_F(DetectionPassFailures, FailureOutsideTheJudgementEndsThePassAndLeavesTheRestPending) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=c1\n");
  queue(job("k1"));
  queue(job("k2", {{"CLIENT", "c2"}}));
  sql("DROP TABLE HIST_DATA");

  EXPECT_EQ(pass(),
            (Strings{kSetUp1, kSetUp2, info("Ignoring client 'c1' for detection as per configuration."),
                     error("Error while doing detection - sqlite prepare statement failed for query - INSERT OR "
                           "REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                           "?, ?, ?, ? ); ")}));
  EXPECT_EQ(queue_state(), (Strings{"k1:0", "k2:0"}));
}

TEST_F(DetectionPassFailures, FailingStreamCheckIsLoggedAtErrorLevelBeforeTheJobIsAccepted) {
  queue(job("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "2"}}));
  sql("DROP TABLE HIST_DATA");

  // The stream check fails, the job is to be accepted, and that write fails
  // too, which ends the pass.
  EXPECT_EQ(
      pass(),
      (Strings{kSetUp1, kSetUp2,
               error("Error while getting job stream count from training set. Jobid - 42. sqlite prepare statement "
                     "failed for query - " +
                     std::string(kStreamCount) + " "),
               error("Error while doing detection - sqlite prepare statement failed for query - INSERT OR "
                     "REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                     "?, ?, ?, ? ); ")}));
  EXPECT_EQ(queue_state(), Strings{"k1:0"});
}

TEST_F(DetectionPassFailures, FailingRecalibrationMarkIsAWarningAndTheJobIsStillAccepted) {
  for (int i = 0; i < 40; ++i) {
    history("h" + std::to_string(i + 1), {{"BACKUP_TIME", std::to_string(i + 1)},
                                          {"NUM_FILES", std::to_string(100 + i)},
                                          {"IMAGE_SIZE", std::to_string(1000 + i)}});
  }
  model("0.5");
  sql("CREATE TRIGGER keep_models BEFORE DELETE ON DBSCAN_MODEL_PARAMS BEGIN SELECT RAISE(ABORT, 'kept'); END;");
  queue(job("k1", {{"NUM_FILES", "100"}, {"IMAGE_SIZE", "1039"}}));

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {warning("Could not initiate Re-calibration, re-calibration will occure later as per "
                                     "frequency. sqlite query execution failed. "),
                             info("Valid record considered based on cluster range analysis.")}}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
}

TEST_F(DetectionPassFailures, LockedDatabaseLosesNoJob) {
  usual_history(40);
  model("0.5");
  queue(job("k1"));                                        // judged, then its history write is refused
  queue(job("k2", {{"CLIENT", "cx"}, {"JOB_ID", "43"}}));  // excluded, its write is refused too
  queue(job("k3", {{"CLIENT", "c9"}, {"JOB_ID", "44"}}));  // never reached
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=cx\n");

  // Another connection holds a write transaction for the whole first pass.
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(db_path().c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> other(raw, sqlite3_close);
  ASSERT_EQ(opened, SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);

  testing::internal::CaptureStdout();
  const Strings locked = pass();
  const std::string out = testing::internal::GetCapturedStdout();

  // k1's write is inside the judgement: reported on standard output, the pass
  // goes on. k2's write is not: the pass ends there.
  EXPECT_EQ(out, "\nUnexpected error during anomaly detection.");
  EXPECT_EQ(locked, concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Anomaly not detected."),
                             info("Ignoring client 'cx' for detection as per configuration."),
                             error("Error while doing detection - sqlite query execution failed.")}}));
  EXPECT_EQ(queue_state(), (Strings{"k1:0", "k2:0", "k3:0"}));
  EXPECT_EQ(count("HIST_DATA"), 40);

  ASSERT_EQ(sqlite3_exec(other.get(), "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);

  pass();
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 43);
  EXPECT_EQ(history_row("k1")["JOB_ID"], "42");
  EXPECT_EQ(history_row("k2")["JOB_ID"], "43");
  EXPECT_EQ(history_row("k3")["JOB_ID"], "44");
}

}  // namespace
}  // namespace pass_test
