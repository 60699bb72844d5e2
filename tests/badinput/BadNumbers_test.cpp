// Numbers that are not numbers: text in numeric columns, values beyond 32
// and 64 bits, "nan", "inf" and empty cells. A cell is read by strtol or
// strtod (non-numeric text is 0, an integer keeps its low 32 bits); each test
// shows where that reading lands the job, and that the job is never lost.
#include "tests/badinput/BadInputFixture.h"

namespace badinput {
namespace {

using BadNumbers = BadInputTest;

const RawCells kTextFeatures = {{"NUM_FILES", "many"},
                                {"IMAGE_SIZE", "big"},
                                {"KB_TRANSFERRED", "lots"},
                                {"TOTAL_TIME", "long"},
                                {"DEDUP_RATE", "high"}};

// ---- text in numeric columns ---------------------------------------------

TEST_F(BadNumbers, TextFeaturesReadAsZeroSoTheJobIsReportedWithZeroValuesAndItsCellsStayText) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", kTextFeatures);
  const Strings queued = dump("DATA_TO_PROCESS");

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(has_line(result.log, info("Anomaly detected for job 42")));
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
  EXPECT_EQ(cell_of("DATA_TO_PROCESS", "UNIQUE_KEY", "k1", "IMAGE_SIZE"), "big");
  EXPECT_EQ(cell_of("DATA_TO_PROCESS", "UNIQUE_KEY", "k1", "typeof(NUM_FILES)"), "text");
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyImageSize"), "0.00 MB (Usual: 1.00 MB - 1.00 MB)");
  EXPECT_EQ(attribute(root, "anomalyTimeTaken"), "0 (Usual: 600 - 600)");
  json_decref(root);
}

TEST_F(BadNumbers, TextWithANumericPrefixReadsAsThatNumberSoTheUsualJobIsAccepted) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"NUM_FILES", "100 files"},
                   {"IMAGE_SIZE", "1024 KB"},
                   {"KB_TRANSFERRED", "2048kb"},
                   {"TOTAL_TIME", "600s"},
                   {"DEDUP_RATE", "2.5x"}});

  EXPECT_TRUE(has_line(pass(), info("Anomaly not detected.")));

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "NUM_FILES"), "100");
  EXPECT_EQ(history_cell("k1", "IMAGE_SIZE"), "1024.0");
  EXPECT_EQ(history_cell("k1", "TOTAL_TIME"), "600");
  EXPECT_EQ(history_cell("k1", "DEDUP_RATE"), "2.5");
}

TEST_F(BadNumbers, TextBackupTimeReadsAsZeroInTheAnomalyId) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"BACKUP_TIME", "yesterday"}, {"NUM_FILES", "5000"}});

  pass();

  EXPECT_EQ(anomaly_rows(), Strings{"42_0|0|k1|c1|1700000000"});
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
}

TEST_F(BadNumbers, TextJobIdIsKeptInTheAnomalyIdAndReadsAsZeroInThePayloadAndTheLog) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"JOB_ID", "J-77"}, {"NUM_FILES", "5000"}});

  EXPECT_TRUE(has_line(pass(), info("Anomaly detected for job 0")));

  EXPECT_EQ(anomaly_rows(), Strings{"J-77_1000000|0|k1|c1|1700000000"});
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(json_integer_value(json_object_get(json_object_get(root, "Attributes"), "jobid")), 0);
  EXPECT_EQ(attribute(root, "anomalyId"), "J-77_1000000");
  json_decref(root);
}

TEST_F(BadNumbers, TextStreamNumberReadsAsZeroSoAJobOfAssetNaIsNotAMultiStreamJob) {
  queue_raw("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "two"}});

  // A multi-stream job without stream history would log "Not enough data".
  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "STREAM_NUMBER"), "0");
}

TEST_F(BadNumbers, TextProcessedStatusKeepsTheJobOutOfThePendingSetAndUntouched) {
  queue_raw("k1", {{"PROCESSED_STATUS", "no"}});
  const std::vector<Strings> before = dump_all();

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(dump_all(), before);
}

TEST_F(BadNumbers, TextVerdictIsNotAConfirmationAndIsLeftUntouched) {
  anomaly("42_1000000", "k1");
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  insert_raw("ANOMALY_DATA_FEEDBACK", {{"ANOMALY_UNIQUE_ID", "42_1000000"}, {"FEEDBACK", "yes"}});
  const std::vector<Strings> before = dump_all();

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(dump_all(), before);
}

// A stored eps that is not a number reads as 0: no two jobs are neighbours,
// every job is noise and only the range check decides. A usual job is then
// inside its range, which drops the model, and the next pass calibrates a
// real eps again.
TEST_F(BadNumbers, TextEpsInTheStoredModelReadsAsZeroAndIsReplacedByTheNextCalibration) {
  usual_history(40);
  model("wide");
  queue(job("k1"));

  const Strings first = pass();
  EXPECT_TRUE(has_line(first, info("Calculated eps = 0.000000 "))) << testing::PrintToString(first);
  EXPECT_TRUE(has_line(first, info("Re-calibration is required for job 42")));
  EXPECT_TRUE(has_line(first, info("Valid record considered based on cluster range analysis.")));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(model_rows(), Strings{});

  queue(job("k2", {{"JOB_ID", "43"}}));
  const Strings second = pass();
  EXPECT_TRUE(has_line_starting(second, info("Calibrated model parameters for client - c1")));
  EXPECT_TRUE(has_line(second, info("Anomaly not detected.")));
  ASSERT_EQ(model_rows().size(), 1u);
  EXPECT_EQ(model_rows()[0].find("|wide|"), std::string::npos);
}

// The anomaly id is JOB_ID and BACKUP_TIME only. Two queued jobs that share
// both (streams of one job, or cells that read as the same number) give one
// id: the second report is ignored by the database, yet its job is marked
// processed. It is not lost (its row stays in the queue) but it has no
// anomaly of its own, so no verdict can ever reach it.
TEST_F(BadNumbers, TwoJobsWithTheSameJobIdAndBackupTimeGetOneAnomalyAndTheSecondStaysProcessedWithoutOne) {
  usual_history(40);
  model("0.5");
  queue(job("k1", pass_test::kFarFeatures));
  queue(job("k2", Cells{{"BACKUP_ID", "img-43"}} + pass_test::kFarFeatures));

  pass();

  EXPECT_EQ(queue_state(), (Strings{"k1:1", "k2:1"}));
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});

  feedback("42_1000000", 1);
  pass();
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
  EXPECT_EQ(history_row("k1")["USER_IDENTIFIED_CLUSTER"], "1");
  expect_every_job_kept({"k1", "k2"});
}

// ---- beyond 32 and 64 bits -------------------------------------------------

TEST_F(BadNumbers, FileCountBeyond32BitsIsJudgedWholeButPrintedAsIntMinimumAndStoredWithItsLow32Bits) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"NUM_FILES", "4294967396"}});  // 2^32 + 100

  EXPECT_TRUE(has_line(pass(), info("Anomaly detected for job 42")));
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyBackupFilesCount"), "-2147483648 (Usual: 100 - 100)");
  EXPECT_EQ(attribute(root, "count"), "1");
  json_decref(root);

  // Confirmed as a false positive, the job enters the history with the low
  // 32 bits of its count.
  feedback("42_1000000", 1);
  pass();
  EXPECT_EQ(history_cell("k1", "NUM_FILES"), "100");
  EXPECT_EQ(queue_keys(), Strings{});
}

TEST_F(BadNumbers, BackupTimeBeyond32BitsKeepsItsLow32BitsInTheAnomalyIdAndTheHistory) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"BACKUP_TIME", "4295967296"}, {"NUM_FILES", "5000"}});  // 2^32 + 1000000
  queue_raw("k2", {{"BACKUP_TIME", "4295967296"}, {"JOB_ID", "43"}});

  pass();

  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  EXPECT_EQ(history_cell("k2", "BACKUP_TIME"), "1000000");
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
}

TEST_F(BadNumbers, JobIdBeyond64BitsBecomesARealSoTheAnomalyIdCarriesItsRealTextAndThePayloadItsLeadingDigit) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"JOB_ID", "99999999999999999999"}, {"NUM_FILES", "5000"}});

  pass();

  EXPECT_EQ(anomaly_rows(), Strings{"1.0e+20_1000000|0|k1|c1|1700000000"});
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(json_integer_value(json_object_get(json_object_get(root, "Attributes"), "jobid")), 1);
  json_decref(root);
}

TEST_F(BadNumbers, FeatureBeyond64BitsIsJudgedAsItsRealValueAndIsReported) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"IMAGE_SIZE", "99999999999999999999999"}});

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyImageSize"), "97656249999999991808.00 MB (Usual: 1.00 MB - 1.00 MB)");
  json_decref(root);
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
}

// ---- nan, inf and empty cells ----------------------------------------------

TEST_F(BadNumbers, EmptyFeatureCellsReadAsZeroLikeNull) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"NUM_FILES", ""}, {"IMAGE_SIZE", ""}, {"KB_TRANSFERRED", ""}, {"TOTAL_TIME", ""},
                   {"DEDUP_RATE", ""}});

  pass();

  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyImageSize"), "0.00 MB (Usual: 1.00 MB - 1.00 MB)");
  EXPECT_EQ(attribute(root, "count"), "5");
  json_decref(root);
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
}

TEST_F(BadNumbers, EmptyUniqueKeyIsStillAKeySoTheJobMovesIntoHistory) {
  queue_raw("", {});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("", "JOB_ID"), "42");
}

TEST_F(BadNumbers, InfiniteImageSizeIsReportedAsAnInfiniteSize) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"IMAGE_SIZE", "inf"}});

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(has_line(result.log, info("Anomaly detected for job 42"))) << testing::PrintToString(result.log);
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyImageSize"), "inf MB (Usual: 1.00 MB - 1.00 MB)");
  json_decref(root);
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
}

// SQLite stores a NaN bound as a real as NULL, and the history's feature
// columns are NOT NULL: the history write of a "nan" job fails. The job is
// valid by every rule (a NaN distance is never a neighbour, a NaN value is
// inside every range), so it must be recorded like any valid job, not
// retried at every pass.
TEST_F(BadNumbers, NanImageSizeJobJudgedValidIsRecordedInsteadOfBeingRetriedAtEveryPass) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"IMAGE_SIZE", "nan"}});
  queue_raw("k2", {{"JOB_ID", "43"}});

  const PassOutput result = pass_capturing_stdout();

  EXPECT_TRUE(has_line(result.log, info("Valid record considered based on cluster range analysis.")));
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "JOB_ID"), "42");
  EXPECT_EQ(history_cell("k2", "JOB_ID"), "43");
}

// A failed write outside the judgement ends the whole pass: a "nan" job of
// an excluded client (or of a workload without history) would stop every
// job queued behind it, at every pass, for ever.
TEST_F(BadNumbers, NanImageSizeJobOfAnExcludedClientIsAcceptedAndDoesNotStopTheJobsQueuedBehindIt) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=cx\n");
  queue_raw("k1", {{"CLIENT", "cx"}, {"IMAGE_SIZE", "nan"}});
  queue_raw("k2", {{"JOB_ID", "43"}});

  const Strings log = pass();

  EXPECT_FALSE(has_line_starting(log, error(""))) << testing::PrintToString(log);
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "CLIENT"), "cx");
  EXPECT_EQ(history_cell("k2", "JOB_ID"), "43");
}

TEST_F(BadNumbers, NanDedupRateJobOfAWorkloadWithoutHistoryIsAcceptedAndDoesNotStopTheJobsQueuedBehindIt) {
  queue_raw("k1", {{"DEDUP_RATE", "NaN"}});
  queue_raw("k2", {{"CLIENT", "c2"}, {"JOB_ID", "43"}});

  const Strings log = pass();

  EXPECT_FALSE(has_line_starting(log, error(""))) << testing::PrintToString(log);
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k2", "JOB_ID"), "43");
}

// The feedback step stops at its first failure: a verdict on a "nan" job
// would block every verdict behind it, at every pass.
TEST_F(BadNumbers, ConfirmedVerdictOnANanJobIsConsumedAndDoesNotBlockTheVerdictsBehindIt) {
  anomaly("42_1000000", "k1");
  anomaly("43_1000000", "k2");
  queue_raw("k1", {{"KB_TRANSFERRED", "nan"}, {"PROCESSED_STATUS", "1"}});
  queue_raw("k2", {{"JOB_ID", "43"}, {"PROCESSED_STATUS", "1"}});
  feedback("42_1000000", 1);
  feedback("43_1000000", 1);

  const Strings log = pass();

  EXPECT_FALSE(has_line(log, info("Error occurred during incorporating user feedback into training set.")));
  EXPECT_EQ(feedback_rows(), Strings{});
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "USER_IDENTIFIED_CLUSTER"), "1");
  EXPECT_EQ(history_cell("k2", "USER_IDENTIFIED_CLUSTER"), "1");
}

// Another writer may leave the text "nan" in a history cell. Every distance
// in that workload is then NaN, every job is noise, no cluster exists, and
// only the range check decides; the jobs are still judged and none is lost.
TEST_F(BadNumbers, NanTextInTheHistoryMakesEveryJobOfItsWorkloadNoiseSoOnlyTheRangeCheckDecides) {
  usual_history(39);
  history_raw("hnan", {{"IMAGE_SIZE", "nan"}, {"BACKUP_TIME", "40"}});
  model("0.5");
  queue(job("k1"));
  queue(job("k2", Cells{{"JOB_ID", "43"}} + pass_test::kFarFeatures));

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  EXPECT_FALSE(has_line_starting(result.log, error(""))) << testing::PrintToString(result.log);
  EXPECT_TRUE(has_line(result.log, info("Valid record considered based on cluster range analysis.")));
  EXPECT_TRUE(has_line(result.log, info("Closest cluster for this anomaly -1")));
  EXPECT_EQ(queue_keys(), Strings{"k2:1"});
  EXPECT_EQ(history_cell("k1", "JOB_ID"), "42");
  EXPECT_EQ(anomaly_rows(), Strings{"43_1000000|0|k2|c1|1700000000"});
  EXPECT_EQ(history_cell("hnan", "IMAGE_SIZE"), "nan");
}

}  // namespace
}  // namespace badinput
