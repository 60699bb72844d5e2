// The five model features, described once: their column, their place in the
// feature matrix, whether the two-feature fallback set keeps them, how the
// anomaly payload names and writes them, and their unit. The detector, its
// calibration, the operator tool and the report all read this table.
#pragma once

#include <array>
#include <string_view>

// A feature's number is its column in the feature matrix (training order).
enum Feature : int { kNumFiles, kImageSize, kKbTransferred, kTotalTime, kDedupRate };
inline constexpr int kFeatureCount = 5;

// How a value is stored in the job tables.
enum class FeatureUnit { Kilobytes, Count, Seconds, Ratio };
// How the payload writes a value: sizes in MB with two decimals, counts as
// truncated integers, ratios in the stream's default form.
enum class PayloadTextForm { Size, Count, Ratio };

struct FeatureInfo {
  Feature feature;
  const char* column;          // column of DATA_TO_PROCESS and HIST_DATA
  bool in_fallback_set;        // kept by the two-feature training set across storages
  const char* payload_member;  // member of the payload's "Attributes"
  const char* summary_name;    // name in the payload's "summary" list
  PayloadTextForm text_form;
  FeatureUnit unit;
  const char* title;  // heading in the report and the console
};

// In matrix order: kFeatures[f].feature == f.
inline constexpr std::array<FeatureInfo, kFeatureCount> kFeatures{{
    {kNumFiles, "NUM_FILES", true, "anomalyBackupFilesCount", "Backup files count", PayloadTextForm::Count,
     FeatureUnit::Count, "Backup files"},
    {kImageSize, "IMAGE_SIZE", true, "anomalyImageSize", "Anomaly image size", PayloadTextForm::Size,
     FeatureUnit::Kilobytes, "Image size"},
    {kKbTransferred, "KB_TRANSFERRED", false, "anomalyDataTransferred", "Data transferred", PayloadTextForm::Size,
     FeatureUnit::Kilobytes, "Data transferred"},
    {kTotalTime, "TOTAL_TIME", false, "anomalyTimeTaken", "Total time", PayloadTextForm::Count, FeatureUnit::Seconds,
     "Time taken"},
    {kDedupRate, "DEDUP_RATE", false, "anomalyDeduplicationRatio", "Deduplication ratio", PayloadTextForm::Ratio,
     FeatureUnit::Ratio, "Deduplication ratio"},
}};

// The order of the service's feature list, in which the anomaly statistics
// are gathered and the payload lists its attributes. It differs on purpose
// from the matrix order: image size comes first.
inline constexpr std::array<Feature, kFeatureCount> kReportOrder{kImageSize, kNumFiles, kKbTransferred, kTotalTime,
                                                                 kDedupRate};

// The number of features of the two-feature fallback set (they lead the
// matrix order).
inline constexpr int kFallbackFeatureCount = 2;

// Which features a training set has: all five, or the fallback's two.
inline constexpr int feature_set_size(int full_feature_set) {
  return full_feature_set == 1 ? kFeatureCount : kFallbackFeatureCount;
}

inline constexpr const FeatureInfo& feature_info(Feature f) { return kFeatures[f]; }

// The feature with this column name or payload member, or nullptr.
inline const FeatureInfo* feature_by_column(std::string_view column) {
  for (const FeatureInfo& info : kFeatures) {
    if (column == info.column) return &info;
  }
  return nullptr;
}
inline const FeatureInfo* feature_by_member(std::string_view member) {
  for (const FeatureInfo& info : kFeatures) {
    if (member == info.payload_member) return &info;
  }
  return nullptr;
}
