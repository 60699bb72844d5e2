#include "service/PassSettings.h"

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace {

using tsanomaly_test::TempDir;

class PassSettingsTest : public ::testing::Test {
 protected:
  PassSettings read(const std::string& ini) {
    TempDir::write(dir.file("t.ini"), ini);
    return PassSettings::read(dir.file("t.ini"));
  }
  TempDir dir;
};

TEST_F(PassSettingsTest, NoFileGivesTheBuiltInDefaults) {
  const PassSettings s = PassSettings::read("");
  EXPECT_EQ(s.sensitivity, 0);
  EXPECT_EQ(s.min_observations, 30);
  EXPECT_EQ(s.days_to_ignore, 365);
  EXPECT_EQ(s.max_observations, 3000);
  EXPECT_FALSE(s.log_model_data);
  EXPECT_EQ(s.day_gap_seconds, 365 * 86400);
}

TEST_F(PassSettingsTest, ValuesAreClampedIntoTheirRanges) {
  PassSettings s = read("[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=150\n[ANOMALY_MODEL_SETTINGS]\n"
                        "MIN_OBSERVATIONS_FOR_TRAINING=10\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=0\n"
                        "MAX_OBSERVATIONS_FOR_TRAINING=-5\n[META_DATA]\nLOG_MODEL_DATA=2\n");
  EXPECT_EQ(s.sensitivity, 100);
  EXPECT_EQ(s.min_observations, 30);
  EXPECT_EQ(s.days_to_ignore, 365);
  EXPECT_EQ(s.max_observations, 3000);
  EXPECT_FALSE(s.log_model_data);
  s = read("[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=-200\n[META_DATA]\nLOG_MODEL_DATA=1\n");
  EXPECT_EQ(s.sensitivity, -99);
  EXPECT_TRUE(s.log_model_data);
}

TEST_F(PassSettingsTest, DayGapWrapsLike32BitArithmetic) {
  EXPECT_EQ(read("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=7\n").day_gap_seconds, 604800);
  EXPECT_EQ(read("[ANOMALY_MODEL_SETTINGS]\nDAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=24856\n").day_gap_seconds,
            -2147408896);
}

TEST_F(PassSettingsTest, AdjustedEpsScalesBySensitivity) {
  PassSettings s;
  s.sensitivity = 100;
  EXPECT_DOUBLE_EQ(s.adjusted_eps(0.5), 1.0);
  s.sensitivity = -99;
  EXPECT_NEAR(s.adjusted_eps(0.5), 0.005, 1e-12);  // a hundredth, never zero
  EXPECT_GT(s.adjusted_eps(0.5), 0.0);
  s.sensitivity = 0;
  EXPECT_EQ(s.adjusted_eps(0.37), 0.37);
}

TEST_F(PassSettingsTest, DisabledFeaturesAreFoundForAPolicyTypeInAnyCase) {
  const PassSettings s = read("[DISABLE_FEATURE_PER_POLICY_TYPE]\nVMware=DEDUP_RATE,total_time\n");
  EXPECT_EQ(s.disabled_features_for("VMWARE"), (std::set<std::string>{"dedup_rate", "total_time"}));
  EXPECT_TRUE(s.disabled_features_for("Oracle").empty());
}

TEST_F(PassSettingsTest, JudgingOnFallbackFeaturesIsOnOnlyForOne) {
  EXPECT_FALSE(PassSettings::read("").judge_on_fallback_features);
  for (const char* value : {"0", "2", "yes", "", "-1"}) {
    EXPECT_FALSE(read(std::string("[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=") + value + "\n")
                     .judge_on_fallback_features)
        << value;
  }
  const PassSettings on = read("[ANOMALY_MODEL_SETTINGS]\nJUDGE_ON_FALLBACK_FEATURES=1\n");
  EXPECT_TRUE(on.judge_on_fallback_features);
  EXPECT_EQ(on.observed_feature_count(0), 2);
  EXPECT_EQ(on.observed_feature_count(1), 5);
  EXPECT_EQ(PassSettings::read("").observed_feature_count(0), 5);
}

}  // namespace
