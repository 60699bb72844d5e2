// SQL NULL in the queue and in the operators' verdicts. The shipped schema
// forbids NULL there; these tests lift the constraint (as another writer's
// schema might) and show that a NULL cell is read as an empty cell (0, 0.0 or
// ""), that no job is lost and that no row is altered behind the detector's
// back.
#include "tests/badinput/BadInputFixture.h"

namespace badinput {
namespace {

class NullCells : public BadInputTest {
 protected:
  void SetUp() override {
    BadInputTest::SetUp();
    without_not_null("DATA_TO_PROCESS");
    without_not_null("ANOMALY_DATA_FEEDBACK");
  }
};

const RawCells kNullFeatures = {{"NUM_FILES", kNull},
                                {"IMAGE_SIZE", kNull},
                                {"KB_TRANSFERRED", kNull},
                                {"TOTAL_TIME", kNull},
                                {"DEDUP_RATE", kNull}};

TEST_F(NullCells, NullFeatureCellsReadAsZeroSoTheJobIsReportedWithZeroValuesAndItsRowKeepsItsNulls) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", kNullFeatures);

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(has_line(result.log, info("Anomaly detected for job 42")));
  EXPECT_EQ(queue_keys(), Strings{"k1:1"});
  for (const char* feature : {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}) {
    EXPECT_EQ(cell_of("DATA_TO_PROCESS", "UNIQUE_KEY", "k1", feature), "<null>") << feature;
  }
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(attribute(root, "anomalyImageSize"), "0.00 MB (Usual: 1.00 MB - 1.00 MB)");
  EXPECT_EQ(attribute(root, "anomalyBackupFilesCount"), "0 (Usual: 100 - 100)");
  EXPECT_EQ(attribute(root, "anomalyDeduplicationRatio"), "0 (Usual: 2.5 - 2.5)");
  EXPECT_EQ(attribute(root, "count"), "5");
  json_decref(root);
  EXPECT_EQ(count("HIST_DATA"), 40);
}

TEST_F(NullCells, NullNameCellsReadAsEmptyTextSoTheJobOfThatUnknownWorkloadIsAcceptedIntoHistory) {
  usual_history(40);
  model("0.5");
  queue_raw("k1", {{"CLIENT", kNull},
                   {"POLICY", kNull},
                   {"POLICY_TYPE", kNull},
                   {"SCHEDULE_TYPE", kNull},
                   {"SCHEDULE_NAME", kNull},
                   {"APP_TYPE", kNull},
                   {"DESTINATION_STORAGE_NAME", kNull},
                   {"ASSET_ID", kNull},
                   {"BACKUP_ID", kNull}});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  for (const char* column : {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE",
                             "DESTINATION_STORAGE_NAME", "ASSET_ID", "BACKUP_ID"}) {
    EXPECT_EQ(history_cell("k1", column), "") << column;
  }
  EXPECT_EQ(history_cell("k1", "IMAGE_SIZE"), "1024.0");
}

TEST_F(NullCells, NullNumberCellsOtherThanFeaturesAreWrittenToHistoryAsZero) {
  queue_raw("k1", {{"BACKUP_TIME", kNull},
                   {"JOB_ID", kNull},
                   {"PARENT_JOB_ID", kNull},
                   {"START_TIME", kNull},
                   {"END_TIME", kNull},
                   {"STREAM_NUMBER", kNull},
                   {"USER_IDENTIFIED_CLUSTER", kNull}});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_keys(), Strings{});
  for (const char* column : {"BACKUP_TIME", "JOB_ID", "PARENT_JOB_ID", "START_TIME", "END_TIME", "STREAM_NUMBER"}) {
    EXPECT_EQ(history_cell("k1", column), "0") << column;
  }
  EXPECT_EQ(history_cell("k1", "USER_IDENTIFIED_CLUSTER"), "-1");
}

TEST_F(NullCells, NullUniqueKeyJobCannotBeAddressedSoItStaysPendingAndItsHistoryRowIsReplacedNotDuplicated) {
  queue_raw("unused", {{"UNIQUE_KEY", kNull}});
  queue_raw("k2", {{"CLIENT", "c2"}, {"JOB_ID", "43"}});

  pass();
  EXPECT_EQ(queue_keys(), Strings{"<null>:0"});
  EXPECT_EQ(count("HIST_DATA"), 2);
  EXPECT_EQ(history_cell("", "JOB_ID"), "42");
  EXPECT_EQ(history_cell("k2", "JOB_ID"), "43");

  // Met again at every pass, never lost, never written twice.
  pass();
  EXPECT_EQ(queue_keys(), Strings{"<null>:0"});
  EXPECT_EQ(count("HIST_DATA"), 2);
  EXPECT_EQ(history_cell("", "JOB_ID"), "42");
}

TEST_F(NullCells, NullProcessedStatusKeepsTheJobOutOfThePendingSetAndUntouched) {
  queue_raw("k1", {{"PROCESSED_STATUS", kNull}});
  const Strings before = dump("DATA_TO_PROCESS");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(dump("DATA_TO_PROCESS"), before);
  EXPECT_EQ(count("HIST_DATA"), 0);
}

TEST_F(NullCells, AllCellsNullButTheKeyIsAcceptedIntoHistoryAsAnEmptyJob) {
  RawCells cells;
  for (const auto& [column, value] : job("k1")) cells.emplace_back(column, kNull);
  for (auto& [column, cell] : cells) {
    if (column == "UNIQUE_KEY") cell = "k1";
    if (column == "PROCESSED_STATUS") cell = "0";
  }
  insert_raw("DATA_TO_PROCESS", cells);

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "CLIENT"), "");
  EXPECT_EQ(history_cell("k1", "IMAGE_SIZE"), "0.0");
  EXPECT_EQ(history_cell("k1", "MODE"), "1");
}

TEST_F(NullCells, ConfirmedVerdictWithNullAnomalyIdIsSkippedAndKeptWhileThePassGoesOn) {
  insert_raw("ANOMALY_DATA_FEEDBACK", {{"ANOMALY_UNIQUE_ID", kNull}, {"FEEDBACK", "1"}});
  queue(job("k1"));
  const Strings verdicts = dump("ANOMALY_DATA_FEEDBACK");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(dump("ANOMALY_DATA_FEEDBACK"), verdicts);
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 1);
}

TEST_F(NullCells, NullVerdictIsNeitherReadNorRemoved) {
  anomaly("42_1000000", "k1");
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  insert_raw("ANOMALY_DATA_FEEDBACK", {{"ANOMALY_UNIQUE_ID", "42_1000000"}, {"FEEDBACK", kNull}});
  const std::vector<Strings> before = dump_all();

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(dump_all(), before);
}

TEST_F(NullCells, ConfirmedVerdictWithANullExtraColumnIsConsumedAndMovesTheJobIntoHistory) {
  sql("ALTER TABLE ANOMALY_DATA_FEEDBACK ADD COLUMN NOTE TEXT");
  anomaly("42_1000000", "k1");
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  insert_raw("ANOMALY_DATA_FEEDBACK", {{"ANOMALY_UNIQUE_ID", "42_1000000"}, {"FEEDBACK", "1"}, {"NOTE", kNull}});

  pass();

  EXPECT_EQ(dump("ANOMALY_DATA_FEEDBACK"), Strings{});
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "USER_IDENTIFIED_CLUSTER"), "1");
}

TEST_F(NullCells, ConfirmedVerdictForAJobWithNullFeaturesMovesItIntoHistoryWithZeroes) {
  anomaly("42_1000000", "k1");
  queue_raw("k1", kNullFeatures + RawCells{{"PROCESSED_STATUS", "1"}});
  feedback("42_1000000", 1);

  pass();

  EXPECT_EQ(dump("ANOMALY_DATA_FEEDBACK"), Strings{});
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "USER_IDENTIFIED_CLUSTER"), "1");
  EXPECT_EQ(history_cell("k1", "NUM_FILES"), "0");
  EXPECT_EQ(history_cell("k1", "IMAGE_SIZE"), "0.0");
  EXPECT_EQ(history_cell("k1", "DEDUP_RATE"), "0.0");
}

}  // namespace
}  // namespace badinput
