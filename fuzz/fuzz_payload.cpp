// The anomaly payload builder on any job cells, statistics, feature-set
// flag, anomaly id, nearest-cluster distance and clock. The document must
// always be JSON with every fixed member, one attribute member per shown
// statistic, a summary naming exactly those attributes, a count that matches
// it, and the job's names and id as given.
#include <fuzzer/FuzzedDataProvider.h>
#include <jansson.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "service/DetectionService.h"

namespace {

using Row = DetectionService::Row;
using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using fuzz_support::is_utf8;

struct Attribute {
  const char* feature;
  const char* member;
  const char* summary_name;
  bool full_feature_set_only;
};

constexpr Attribute kAttributes[] = {
    {"IMAGE_SIZE", "anomalyImageSize", "Anomaly image size", false},
    {"NUM_FILES", "anomalyBackupFilesCount", "Backup files count", false},
    {"KB_TRANSFERRED", "anomalyDataTransferred", "Data transferred", true},
    {"TOTAL_TIME", "anomalyTimeTaken", "Total time", true},
    {"DEDUP_RATE", "anomalyDeduplicationRatio", "Deduplication ratio", true},
};

// Names of the job and the payload members that carry them.
constexpr const char* kNames[][2] = {{"CLIENT", "clientName"},
                                     {"POLICY", "policyName"},
                                     {"POLICY_TYPE", "policyType"},
                                     {"SCHEDULE_NAME", "scheduleName"},
                                     {"DESTINATION_STORAGE_NAME", "storageName"}};

DetectionService& service() {
  static std::unique_ptr<DetectionService> instance = [] {
    const std::string folder = fuzz_support::scratch_folder("fuzz-payload");
    return std::make_unique<DetectionService>(folder, "payload.db", 0.5, 3.0, "");
  }();
  return *instance;
}

double any_double(FuzzedDataProvider& in) {
  double x = 0.0;
  if (in.ConsumeBool()) {
    const auto raw = in.ConsumeBytes<uint8_t>(sizeof x);
    if (!raw.empty()) std::memcpy(&x, raw.data(), raw.size());
  } else {
    x = static_cast<double>(in.ConsumeIntegralInRange<int64_t>(-5000000, 5000000)) / 4.0;
  }
  return x;
}

// A cell as the storage layer would hand it over: text without NUL bytes.
std::string cell_text(FuzzedDataProvider& in) {
  return fuzz_support::c_string_part(in.ConsumeRandomLengthString(64));
}

// A string member; std::nullopt when the object lacks it.
std::optional<std::string> member(json_t* object, const char* key) {
  json_t* value = json_object_get(object, key);
  FUZZ_CHECK(value == nullptr || json_is_string(value), "member %s is not a string", key);
  if (value == nullptr) return std::nullopt;
  return std::string(json_string_value(value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  DetectionService& detector = service();
  const time_t now = in.ConsumeBool() ? static_cast<time_t>(in.ConsumeIntegral<int64_t>())
                                      : static_cast<time_t>(in.ConsumeIntegralInRange<int64_t>(0, 4102444800));
  detector.set_clock([now] { return now; });

  Row record;
  for (const auto& [column, unused] : kNames) {
    if (in.ConsumeProbability<float>() < 0.9f) record[column] = Value(cell_text(in));
  }
  if (in.ConsumeBool()) record["JOB_ID"] = Value(cell_text(in));
  DetectionService::AnomalyStats stats;
  for (const Attribute& attribute : kAttributes) {
    if (in.ConsumeBool()) stats[attribute.feature] = anomaly_stat{any_double(in), any_double(in), any_double(in)};
  }
  if (in.ConsumeBool()) stats[cell_text(in)] = anomaly_stat{};  // a statistic of no known feature
  const int full_feature_set = in.ConsumeBool() ? static_cast<int>(in.ConsumeBool()) : in.ConsumeIntegral<int>();
  ClosestClusterInfo closest;
  closest.cluster_id = in.ConsumeIntegral<int>();
  closest.distance = any_double(in);
  const std::string anomaly_id = cell_text(in);

  const std::string payload = detector.get_json_payload_for_anomaly(record, stats, full_feature_set, anomaly_id, closest);

  json_error_t error;
  json_t* root = json_loads(payload.c_str(), 0, &error);
  FUZZ_CHECK(root != nullptr && json_is_object(root), "payload is not a JSON object: %s", error.text);
  FUZZ_CHECK(member(root, "DetectionType") == "dbscan", "DetectionType");
  FUZZ_CHECK(member(root, "SizeUnit") == "MB", "SizeUnit");
  const std::string when = member(root, "DetectionTime").value_or("");
  FUZZ_CHECK(when.size() > 4 && when.compare(when.size() - 4, 4, ".66Z") == 0, "DetectionTime '%s'", when.c_str());
  json_t* attributes = json_object_get(root, "Attributes");
  FUZZ_CHECK(json_is_object(attributes), "Attributes is not an object");

  json_t* jobid = json_object_get(attributes, "jobid");
  const auto job_id_cell = record.find("JOB_ID");
  const int expected_job_id = job_id_cell == record.end() ? 0 : static_cast<int>(job_id_cell->second);
  FUZZ_CHECK(json_is_integer(jobid) && json_integer_value(jobid) == expected_job_id, "jobid");

  // Every name is present whatever its bytes; a UTF-8 name exactly as given
  // (JSON strings are UTF-8, so other bytes cannot travel unchanged).
  for (const auto& [column, name] : kNames) {
    const auto found = record.find(column);
    const std::string expected = found == record.end() ? std::string() : found->second.text();
    const std::optional<std::string> got = member(attributes, name);
    FUZZ_CHECK(got.has_value(), "%s is missing for '%s'", name, expected.c_str());
    if (is_utf8(expected)) {
      FUZZ_CHECK(*got == expected, "%s is '%s', not '%s'", name, got->c_str(), expected.c_str());
    }
  }
  const std::optional<std::string> own_id = member(attributes, "anomalyId");
  FUZZ_CHECK(own_id.has_value(), "anomalyId is missing");
  if (is_utf8(anomaly_id)) {
    FUZZ_CHECK(*own_id == anomaly_id, "anomalyId");
  }
  FUZZ_CHECK(member(attributes, "anomalyFeedback") == "Report as false positive", "anomalyFeedback");

  // One member per shown statistic, and the summary names exactly those.
  std::string summary;
  int shown = 0;
  for (const Attribute& attribute : kAttributes) {
    const bool show = stats.count(attribute.feature) != 0 && (!attribute.full_feature_set_only || full_feature_set == 1);
    const std::optional<std::string> shown_text = member(attributes, attribute.member);
    FUZZ_CHECK(show == shown_text.has_value(), "%s shown %d", attribute.member, show);
    const std::string text = shown_text.value_or("");
    if (show) {
      summary += std::string(summary.empty() ? "" : ",") + attribute.summary_name;
      ++shown;
      FUZZ_CHECK(text.find(" (Usual: ") != std::string::npos && text.back() == ')', "%s text '%s'", attribute.member,
                 text.c_str());
    }
  }
  FUZZ_CHECK(member(attributes, "summary") == summary, "summary '%s', expected '%s'",
             member(attributes, "summary").value_or("<missing>").c_str(), summary.c_str());
  FUZZ_CHECK(member(attributes, "count") == std::to_string(shown), "count");
  char score[512];
  std::snprintf(score, sizeof score, "%.2f", closest.distance);
  FUZZ_CHECK(member(attributes, "score") == score, "score '%s', expected '%s'", member(attributes, "score").value_or("<missing>").c_str(),
             score);
  json_decref(root);
  return 0;
}
