// Training-set selection: required sizes, the stream check, the two training
// queries and the feature matrix.
#include "tests/support/ServiceTestFixture.h"

namespace {

class TrainingTest : public ServiceTestFixture {
 protected:
  const std::string kCountWithAsset =
      "SELECT COUNT(*)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
      "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
      "SCHEDULE_NAME            = ? AND  ASSET_ID                 = ? ";
  const std::string kMaxStream =
      "SELECT MAX(STREAM_NUMBER)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   "
      "= ? AND  POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
      "SCHEDULE_NAME            = ? ";
  const std::string kCountStream =
      "SELECT COUNT(*)  FROM HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  "
      "POLICY_TYPE              = ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  "
      "SCHEDULE_NAME            = ? AND  STREAM_NUMBER            = ? ";
  const std::string kFull =
      "SELECT NUM_FILES,  IMAGE_SIZE,  KB_TRANSFERRED,  TOTAL_TIME,  DEDUP_RATE,  USER_IDENTIFIED_CLUSTER  FROM "
      "HIST_DATA  WHERE  CLIENT                   = ? AND  POLICY                   = ? AND  POLICY_TYPE              "
      "= ? AND  APP_TYPE                 = ? AND  SCHEDULE_TYPE            = ? AND  SCHEDULE_NAME            = ? AND  "
      "DESTINATION_STORAGE_NAME = ? AND  ASSET_ID                 = ? AND  MODE                     = ?   ORDER BY "
      "BACKUP_TIME DESC LIMIT ? ";
  const std::string kFallback =
      "SELECT   NUM_FILES,  IMAGE_SIZE,  KB_TRANSFERRED,  USER_IDENTIFIED_CLUSTER  FROM HIST_DATA  WHERE  CLIENT        "
      "= ? AND  POLICY        = ? AND  POLICY_TYPE   = ? AND  APP_TYPE      = ? AND  SCHEDULE_TYPE = ? AND  "
      "SCHEDULE_NAME = ? AND  ASSET_ID      = ?  ORDER BY BACKUP_TIME DESC LIMIT ? ";
};

}  // namespace

TEST_F(TrainingTest, WorkloadWithoutHistoryNeedsMinusOne) {
  int streams = 7;
  trace_sql();
  EXPECT_EQ(service->get_adj_min_observations_required(job("k"), 30, streams), -1);
  EXPECT_EQ(streams, 7);  // untouched
  EXPECT_EQ(traced, (std::vector<std::string>{kCountWithAsset}));
}

TEST_F(TrainingTest, HistoryOfAnotherAssetDoesNotCount) {
  history_rows(job("h", "vm2"), 5, "h");
  int streams = 0;
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "vm1"), 30, streams), -1);
}

TEST_F(TrainingTest, SingleAssetJobNeedsTheMinimumAndHasNoStreams) {
  history_rows(job("h", "VM42"), 10, "h");
  int streams = 9;
  trace_sql();
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "VM42"), 30, streams), 30);
  EXPECT_EQ(streams, 0);
  EXPECT_EQ(traced, (std::vector<std::string>{kCountWithAsset}));
}

TEST_F(TrainingTest, MultiStreamJobNeedsTheMinimumPerStream) {
  for (int stream = 1; stream <= 4; ++stream) {
    history_rows(job("h", "NA", {{"STREAM_NUMBER", std::to_string(stream)}}), 2, "s" + std::to_string(stream) + "-");
  }
  int streams = 0;
  trace_sql();
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "NA"), 30, streams), 120);
  EXPECT_EQ(streams, 4);
  EXPECT_EQ(traced, (std::vector<std::string>{kCountWithAsset, kMaxStream}));
}

TEST_F(TrainingTest, MaxStreamIgnoresStorageAndAsset) {
  history_rows(job("h", "NA"), 3, "h");
  history_rows(job("o", "vm9", {{"STREAM_NUMBER", "6"}, {"DESTINATION_STORAGE_NAME", "other"}}), 1, "o");
  int streams = 0;
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "NA"), 30, streams), 180);
  EXPECT_EQ(streams, 6);
}

TEST_F(TrainingTest, MultiStreamJobWithOnlyStreamZeroNeedsTheMinimum) {
  history_rows(job("h", "NA"), 3, "h");
  int streams = 5;
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "NA"), 30, streams), 30);
  EXPECT_EQ(streams, 0);
}

TEST_F(TrainingTest, StreamTimesMinimumWrapsAtThirtyTwoBits) {
  history_rows(job("h", "NA", {{"STREAM_NUMBER", "65536"}}), 1, "h");
  int streams = 0;
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "NA"), 65536, streams), 0);
  EXPECT_EQ(streams, 65536);
  EXPECT_EQ(service->get_adj_min_observations_required(job("k", "NA"), 65537, streams), 65536);
}

TEST_F(TrainingTest, StreamCheckFindsHistoryOfTheJobsStreamOnly) {
  history_rows(job("h", "NA", {{"STREAM_NUMBER", "2"}, {"DESTINATION_STORAGE_NAME", "elsewhere"}}), 1, "h");
  trace_sql();
  EXPECT_TRUE(service->check_stream_num_data_available(job("k", "other-asset", {{"STREAM_NUMBER", "2"}})));
  EXPECT_EQ(traced, (std::vector<std::string>{kCountStream}));
  EXPECT_FALSE(service->check_stream_num_data_available(job("k", "NA", {{"STREAM_NUMBER", "3"}})));
}

TEST_F(TrainingTest, FullSetIsTakenWhenItIsLargeEnough) {
  history_rows(job("h"), 40, "h");
  Rows records;
  trace_sql();
  EXPECT_TRUE(service->get_training_set_records(job("k"), records, 30, 365));
  EXPECT_EQ(traced, (std::vector<std::string>{kFull}));
  ASSERT_EQ(records.size(), 40u);
  EXPECT_TRUE(records[0]["NUM_FILES"] == "40");  // newest first
  EXPECT_TRUE(records[39]["NUM_FILES"] == "1");
  EXPECT_EQ(records[0].size(), 6u);
}

TEST_F(TrainingTest, FullSetIsLimitedToTheNewestRecords) {
  history_rows(job("h"), 40, "h");
  Rows records;
  EXPECT_TRUE(service->get_training_set_records(job("k"), records, 5, 10));
  ASSERT_EQ(records.size(), 10u);
  EXPECT_TRUE(records[9]["NUM_FILES"] == "31");
}

TEST_F(TrainingTest, FullSetTakesOnlyModeOneOfTheSameStorage) {
  history_rows(job("a"), 3, "a");
  history_rows(job("b"), 4, "b", 2);
  history_rows(job("c", "vm1", {{"DESTINATION_STORAGE_NAME", "stu2"}}), 5, "c");
  Rows records;
  EXPECT_TRUE(service->get_training_set_records(job("k"), records, 3, 365));
  EXPECT_EQ(records.size(), 3u);
}

TEST_F(TrainingTest, TooSmallFullSetFallsBackAcrossStoragesAndModes) {
  history_rows(job("a"), 29, "a");
  history_rows(job("b", "vm1", {{"DESTINATION_STORAGE_NAME", "stu2"}}), 5, "b");
  history_rows(job("c"), 2, "c", 2);
  Rows records;
  trace_sql();
  EXPECT_FALSE(service->get_training_set_records(job("k"), records, 30, 365));
  EXPECT_EQ(traced, (std::vector<std::string>{kFull, kFallback}));
  ASSERT_EQ(records.size(), 36u);
  EXPECT_EQ(records[0].size(), 4u);
  EXPECT_EQ(records[0].count("TOTAL_TIME"), 0u);

  DetectionService::Matrix matrix;
  service->get_data_in_matrix_format(records, matrix, 0, {});
  ASSERT_EQ(matrix.size(), 36u);
  EXPECT_EQ(matrix[0].size(), 2u);
}

TEST_F(TrainingTest, FallbackIsReturnedFalseEvenWhenItIsStillTooSmall) {
  history_rows(job("a"), 3, "a");
  Rows records;
  EXPECT_FALSE(service->get_training_set_records(job("k"), records, 30, 365));
  EXPECT_EQ(records.size(), 3u);
}

TEST_F(TrainingTest, NegativeMinimumNeverPassesTheFullSet) {
  history_rows(job("a"), 3, "a");
  Rows records;
  trace_sql();
  EXPECT_FALSE(service->get_training_set_records(job("k"), records, -5, 365));
  EXPECT_EQ(traced.size(), 2u);
}

TEST_F(TrainingTest, MatrixTakesFiveFeaturesInColumnOrder) {
  Rows records(1);
  records[0]["NUM_FILES"] = Value(std::string("1"));
  records[0]["IMAGE_SIZE"] = Value(std::string("2.5"));
  records[0]["KB_TRANSFERRED"] = Value(std::string("3"));
  records[0]["TOTAL_TIME"] = Value(std::string("4"));
  records[0]["DEDUP_RATE"] = Value(std::string("5.5"));
  DetectionService::Matrix matrix{{9.0}};
  service->get_data_in_matrix_format(records, matrix, 1, {});
  ASSERT_EQ(matrix.size(), 2u);  // appended after what the matrix held
  EXPECT_EQ(matrix[1], (std::vector<double>{1, 2.5, 3, 4, 5.5}));
}

TEST_F(TrainingTest, DisabledFeatureIsLeftOutAndLaterColumnsMoveUp) {
  Rows records(1);
  for (const char* f : {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}) {
    records[0][f] = Value(static_cast<int>(records[0].size()) + 1);
  }
  DetectionService::Matrix matrix;
  service->get_data_in_matrix_format(records, matrix, 1, {"image_size"});
  EXPECT_EQ(matrix[0], (std::vector<double>{1, 3, 4, 5}));
}

TEST_F(TrainingTest, UpperCaseDisabledNameDisablesNothing) {
  Rows records(1);
  records[0]["NUM_FILES"] = Value(1);
  records[0]["IMAGE_SIZE"] = Value(2);
  DetectionService::Matrix matrix;
  service->get_data_in_matrix_format(records, matrix, 0, {"NUM_FILES"});
  EXPECT_EQ(matrix[0], (std::vector<double>{1, 2}));
}

TEST_F(TrainingTest, FullFeatureSetOtherThanOneTakesTwoFeatures) {
  Rows records(1);
  records[0]["NUM_FILES"] = Value(1);
  records[0]["IMAGE_SIZE"] = Value(2);
  records[0]["KB_TRANSFERRED"] = Value(3);
  DetectionService::Matrix matrix;
  service->get_data_in_matrix_format(records, matrix, 2, {});
  EXPECT_EQ(matrix[0], (std::vector<double>{1, 2}));
}

TEST_F(TrainingTest, EveryFeatureDisabledStillAppendsAnEmptyRow) {
  Rows records(2);
  DetectionService::Matrix matrix;
  service->get_data_in_matrix_format(records, matrix, 0, {"num_files", "image_size"});
  ASSERT_EQ(matrix.size(), 2u);
  EXPECT_TRUE(matrix[0].empty());
}

TEST_F(TrainingTest, NoRecordsLeaveTheMatrixUnchanged) {
  DetectionService::Matrix matrix{{1.0, 2.0}};
  service->get_data_in_matrix_format(Rows{}, matrix, 1, {});
  EXPECT_EQ(matrix, (DetectionService::Matrix{{1.0, 2.0}}));
}

TEST_F(TrainingTest, MissingHistoryTableMakesTheCountThrow) {
  sql("DROP TABLE HIST_DATA");
  int streams = 0;
  EXPECT_THROW(service->get_adj_min_observations_required(job("k"), 30, streams),
               Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception);
}
