// AnomalyPayload: the JSON document stored with each reported anomaly, both
// ways. Building it gives the detector's document byte for byte; parsing it
// gives the operator tool, the report and the console the same fields back,
// so the format lives only here. Parsing never throws: a damaged document
// yields empty fields.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "model/ClosestClusterInfo.h"
#include "contract/AnomalyStat.h"
#include "contract/Features.h"
#include "storage/Value.h"

namespace anomaly_payload {

using Row = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;

// What the payload's fixed members say.
inline constexpr const char* kFeedbackLabel = "Report as false positive";
inline constexpr const char* kSizeUnit = "MB";

// The key of ANOMALY_DATA and ANOMALY_DATA_FEEDBACK: the JOB_ID cell's text
// as stored, "_", and BACKUP_TIME in decimal.
std::string anomaly_id(const std::string& job_id_text, int backup_time);

// "2024-03-01T14:05:09.66Z": local time, with a fixed fraction and zone
// letter that are part of the format.
std::string detection_time_text(time_t now);

// One attribute's text, e.g. "1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)"
// for a size, "5120 (Usual: 4000 - 4500)" for a count.
std::string attribute_text(PayloadTextForm form, const anomaly_stat& stat);

// The document for an anomalous job: its names from record, one attribute
// per feature in stats (the last three only with the full feature set), the
// summary and count of those, the score (the distance to the nearest
// cluster) and the detection time now.
std::string build(const Row& record, const AnomalyStats& stats, int full_feature_set, const std::string& anomaly_id,
                  const ClosestClusterInfo& closest, time_t now);

// One attribute text taken apart: the texts as written ("1536.00 MB") and
// their numbers in the text's unit (megabytes for sizes).
struct Reading {
  std::string current_text, low_text, high_text;
  double current = 0, low = 0, high = 0;
};
// None when the text does not have the "X (Usual: A - B)" form.
std::optional<Reading> parse_reading(const std::string& text);
// The factor from an attribute text's numbers to the feature's stored unit
// (sizes are written in MB and stored in KB).
double text_to_stored(PayloadTextForm form);

// The fields of a stored document.
struct Fields {
  std::string detection_time;  // as written, see detection_time_text
  long long job_id = 0;
  std::string client, policy, policy_type, schedule_name, storage_name;
  std::string anomaly_id, summary, count, score;
  // Attribute texts by payload member, in the detector's order; only the
  // features that left their range are present.
  std::vector<std::pair<std::string, std::string>> attributes;
};
Fields parse(const std::string& document);

// The names listed in a summary ("Anomaly image size,Backup files count"),
// blanks trimmed, empty items left out.
std::vector<std::string> summary_names(const std::string& summary);

}  // namespace anomaly_payload
