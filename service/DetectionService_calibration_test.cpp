// Per-workload eps: reading, staleness, calibration and the re-calibration mark.
#include <algorithm>
#include <cstdio>

#include "tests/support/ServiceTestFixture.h"

namespace {

class CalibrationTest : public ServiceTestFixture {
 protected:
  const std::string kSelect =
      "SELECT EPS, CAPTURE_DATE FROM DBSCAN_MODEL_PARAMS  WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ?   AND "
      "SCHEDULE_TYPE = ? AND SCHEDULE_NAME = ? AND APP_TYPE = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ?";
  const std::string kDelete =
      "DELETE FROM DBSCAN_MODEL_PARAMS  WHERE CLIENT = ? AND POLICY = ? AND POLICY_TYPE = ?   AND SCHEDULE_TYPE = ? "
      "AND SCHEDULE_NAME = ? AND APP_TYPE = ? AND DESTINATION_STORAGE_NAME = ? AND ASSET_ID = ?";
  const std::string kInsert = "INSERT OR REPLACE INTO DBSCAN_MODEL_PARAMS  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";

  void store_model(double eps, long long capture_date) {
    sql("INSERT INTO DBSCAN_MODEL_PARAMS VALUES ('c1', 'p1', 'Standard', 'FULL', 'daily', 'app', " +
        std::to_string(eps) + ", " + std::to_string(capture_date) + ", 'stu1', 'vm1')");
  }

  // Training records as the full training query returns them.
  static Rows training(const std::vector<std::vector<double>>& features) {
    Rows rows;
    for (const auto& f : features) {
      Row row;
      const char* names[] = {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"};
      for (size_t i = 0; i < f.size(); ++i) row[names[i]] = Value(f[i]);
      row["USER_IDENTIFIED_CLUSTER"] = Value(-1);
      rows.push_back(row);
    }
    return rows;
  }

  // SQLite writes reals with 15 significant digits; printf shows all 17.
  std::string stored_eps() { return query("SELECT printf('%.17g', EPS) AS E FROM DBSCAN_MODEL_PARAMS")[0]["E"]; }

  static double grid_end() {
    double eps = 2.5;
    for (int i = 0; i < 15; ++i) eps += 0.1;
    return eps;
  }
};

}  // namespace

TEST_F(CalibrationTest, ParamsAreReadByTheWholeWorkloadKey) {
  store_model(2.7, 123);
  Rows params;
  trace_sql();
  service->get_dbscan_params(job("k"), params);
  EXPECT_EQ(traced, (std::vector<std::string>{kSelect}));
  ASSERT_EQ(params.size(), 1u);
  EXPECT_TRUE(params[0]["EPS"] == "2.7");
  EXPECT_TRUE(params[0]["CAPTURE_DATE"] == "123");

  Rows other;
  service->get_dbscan_params(job("k", "vm2"), other);
  EXPECT_TRUE(other.empty());
}

TEST_F(CalibrationTest, NoStoredRowRequiresCalibration) {
  EXPECT_TRUE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, ModelCapturedInThePastIsNeverStale) {
  store_model(2.7, kNow - 30 * 86400);
  EXPECT_FALSE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, ModelCapturedExactlyFourteenDaysAheadIsNotStale) {
  store_model(2.7, kNow + 1209600);
  EXPECT_FALSE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, ModelCapturedMoreThanFourteenDaysAheadIsStale) {
  store_model(2.7, kNow + 1209601);
  EXPECT_TRUE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, CaptureMinusNowWrapsAtThirtyTwoBits) {
  // now = 2^31 - 100 and capture = -2^31 + 2000000: the true difference is
  // hugely negative, the 32-bit one is 2000100, more than fourteen days.
  service->set_clock([] { return static_cast<time_t>(2147483548); });
  store_model(2.7, -2147483648LL + 2000000);
  EXPECT_TRUE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, ClockBeyondThirtyTwoBitsIsTruncated) {
  // 2^32 + 1000 truncates to 1000; a capture 1209601 s after that is stale.
  service->set_clock([] { return static_cast<time_t>(4294968296LL); });
  store_model(2.7, 1000 + 1209601);
  EXPECT_TRUE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, IdenticalTrainingRowsCalibrateAtTheFirstTry) {
  trace_sql();
  service->calibrate(job("k"), training(std::vector<std::vector<double>>(5, {1, 2, 3, 4, 5})), 1);
  EXPECT_EQ(traced, (std::vector<std::string>{as_compiled(kInsert)}));
  EXPECT_EQ(stored_eps(), "2.5");
  const auto lines = log_lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "<2> dbscan_detection: Calibrated model parameters for client - c1 , policy - p1, policy type - Standard, "
            "schedule name - daily");
  EXPECT_EQ(lines[1], "<2> dbscan_detection: EPS value = 2.500000");
}

TEST_F(CalibrationTest, FewerRowsThanMinSamplesStoreTheValueAfterTheGrid) {
  service->calibrate(job("k"), training({{1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}}), 1);
  EXPECT_EQ(grid_end(), 4.000000000000001);
  EXPECT_EQ(query("SELECT EPS = 4.000000000000001 AS same FROM DBSCAN_MODEL_PARAMS")[0]["same"], 1);
  EXPECT_EQ(log_lines()[1], "<2> dbscan_detection: EPS value = 4.000000");
}

TEST_F(CalibrationTest, StoredRowCarriesTheWholeKeyAndTheClock) {
  service->calibrate(job("k"), training(std::vector<std::vector<double>>(3, {1, 2, 3, 4, 5})), 1);
  Rows rows = query("SELECT * FROM DBSCAN_MODEL_PARAMS");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["CLIENT"] == "c1");
  EXPECT_TRUE(rows[0]["POLICY"] == "p1");
  EXPECT_TRUE(rows[0]["POLICY_TYPE"] == "Standard");
  EXPECT_TRUE(rows[0]["SCHEDULE_TYPE"] == "FULL");
  EXPECT_TRUE(rows[0]["SCHEDULE_NAME"] == "daily");
  EXPECT_TRUE(rows[0]["APP_TYPE"] == "app");
  EXPECT_TRUE(rows[0]["DESTINATION_STORAGE_NAME"] == "stu1");
  EXPECT_TRUE(rows[0]["ASSET_ID"] == "vm1");
  EXPECT_EQ(static_cast<int>(rows[0]["CAPTURE_DATE"]), kNow);
}

TEST_F(CalibrationTest, CalibratingTwiceKeepsOneRowWithTheLaterValues) {
  service->calibrate(job("k"), training(std::vector<std::vector<double>>(3, {1, 2, 3, 4, 5})), 1);
  service->set_clock([] { return kNow + 60; });
  service->calibrate(job("k"), training({{1, 2, 3, 4, 5}}), 1);
  EXPECT_EQ(count("DBSCAN_MODEL_PARAMS"), 1);
  EXPECT_EQ(query("SELECT EPS = 4.000000000000001 AS same FROM DBSCAN_MODEL_PARAMS")[0]["same"], 1);
  EXPECT_EQ(static_cast<int>(query("SELECT CAPTURE_DATE FROM DBSCAN_MODEL_PARAMS")[0]["CAPTURE_DATE"]), kNow + 60);
}

TEST_F(CalibrationTest, CalibrationUsesEveryFeatureOfTheChosenSet) {
  // One row apart on DEDUP_RATE only, by sqrt(19) + 1/sqrt(19) = 4.6
  // standard units: with five features no grid eps reaches it (noise stays,
  // the value after the grid is stored); with the two-feature set every row
  // is identical and the first try wins.
  std::vector<std::vector<double>> features;
  for (int i = 0; i < 19; ++i) features.push_back({1, 2, 3, 4, 1});
  features.push_back({1, 2, 3, 4, 1000});
  service->calibrate(job("k"), training(features), 1);
  EXPECT_EQ(query("SELECT EPS = 4.000000000000001 AS same FROM DBSCAN_MODEL_PARAMS")[0]["same"], 1);
  service->calibrate(job("k"), training(features), 0);
  EXPECT_EQ(stored_eps(), "2.5");
}

TEST_F(CalibrationTest, StoredEpsEqualsTheOneTheTriesFind) {
  // Worked out by hand; the other columns are constant and standardise to 0.
  // Four rows at 0 and one at 1: mean 0.2, deviation 0.4, so the outlier
  // lies exactly 2.5 standard units from the others. At eps 2.5 it is no
  // neighbour (the test is strict) and stays noise; at 2.5 + 0.1 it is.
  std::vector<std::vector<double>> features(4, {0, 5, 5, 5, 5});
  features.push_back({1, 5, 5, 5, 5});
  service->calibrate(job("k"), training(features), 1);
  EXPECT_EQ(query("SELECT EPS = 2.6000000000000001 AS same FROM DBSCAN_MODEL_PARAMS")[0]["same"], 1);

  // Nine rows at 0 and one at 3: mean 0.3, deviation 0.9, a gap of 10/3.
  // Tries 2.5 .. 3.3 leave the outlier alone; the ninth, 3.4 (as repeated
  // additions of 0.1 make it), is the first beyond the gap.
  features.assign(9, {0, 5, 5, 5, 5});
  features.push_back({3, 5, 5, 5, 5});
  service->calibrate(job("k"), training(features), 1);
  EXPECT_EQ(query("SELECT EPS = 3.4000000000000008 AS same FROM DBSCAN_MODEL_PARAMS")[0]["same"], 1);
}

TEST_F(CalibrationTest, EmptyTrainingSetIsRejectedWithoutWriting) {
  EXPECT_THROW(service->calibrate(job("k"), Rows{}, 1), std::invalid_argument);
  EXPECT_EQ(count("DBSCAN_MODEL_PARAMS"), 0);
}

TEST_F(CalibrationTest, MarkForReCalibrationDeletesTheWorkloadsRowOnly) {
  store_model(2.7, 1);
  sql("INSERT INTO DBSCAN_MODEL_PARAMS VALUES ('c1', 'p1', 'Standard', 'FULL', 'daily', 'app', 3.0, 1, 'stu1', 'vm2')");
  trace_sql();
  service->mark_for_re_calibration(job("k"));
  EXPECT_EQ(traced, (std::vector<std::string>{kDelete}));
  Rows rows = query("SELECT ASSET_ID FROM DBSCAN_MODEL_PARAMS");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["ASSET_ID"] == "vm2");
  EXPECT_TRUE(service->is_calibration_required(job("k")));
}

TEST_F(CalibrationTest, MissingModelTableMakesTheLookupThrow) {
  sql("DROP TABLE DBSCAN_MODEL_PARAMS");
  EXPECT_THROW(service->is_calibration_required(job("k")),
               Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception);
}
