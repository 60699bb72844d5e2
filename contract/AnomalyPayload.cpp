#include "contract/AnomalyPayload.h"

#include <cstdlib>
#include <iomanip>
#include <sstream>

#include "platform/LocalTime.h"
#include "util/Int32.h"
#include "util/Json.h"
#include "util/Text.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

namespace anomaly_payload {
namespace {

constexpr double kKilobytesToMegabytes = 0.0009765625;  // 1/1024, exact in binary
constexpr const char* kUsualOpen = " (Usual: ";

std::string fixed2(double value) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(2) << value;
  return out.str();
}

std::string size_text(double kilobytes) { return fixed2(kilobytes * kKilobytesToMegabytes) + " MB"; }
std::string count_text(double value) { return std::to_string(truncate_to_int(value)); }
// The stream's default form: general notation, six significant digits.
std::string ratio_text(double value) { return std::string(Value(value)); }

// The cell's text; a column the record lacks reads as empty, as a Row lookup would.
std::string cell_text(const Row& row, const char* column) {
  const auto found = row.find(column);
  return found == row.end() ? std::string() : found->second.text();
}

Json names_object(const Row& record) {
  Json attributes = Json::object();
  const auto job = record.find("JOB_ID");
  attributes.set("jobid", Json::integer(job == record.end() ? 0 : static_cast<int>(job->second)));
  attributes.set("clientName", Json::string(cell_text(record, "CLIENT")));
  attributes.set("policyName", Json::string(cell_text(record, "POLICY")));
  attributes.set("policyType", Json::string(cell_text(record, "POLICY_TYPE")));
  attributes.set("scheduleName", Json::string(cell_text(record, "SCHEDULE_NAME")));
  return attributes;
}

std::string trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

// A number that must be the whole of s (surrounding blanks allowed), with an
// optional unit word after it ("1000.00 MB").
std::optional<double> number_with_unit(const std::string& s) {
  const char* begin = s.c_str();
  char* end = nullptr;
  const double value = std::strtod(begin, &end);
  if (end == begin) return std::nullopt;
  const std::string rest = trim(end);
  if (!rest.empty() && rest.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") !=
                           std::string::npos) {
    return std::nullopt;
  }
  return value;
}

std::string member_text(const Json& object, const char* name) {
  return object.member(name).as_text().value_or("");
}

}  // namespace

std::string anomaly_id(const std::string& job_id_text, int backup_time) {
  return job_id_text + "_" + std::to_string(backup_time);
}

std::string detection_time_text(time_t now) {
  struct tm local {};
  ts_localtime(&now, &local);
  char text[80];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.66Z", &local);
  return text;
}

std::string attribute_text(PayloadTextForm form, const anomaly_stat& stat) {
  switch (form) {
    case PayloadTextForm::Size:
      return size_text(stat.current_value) + kUsualOpen + size_text(stat.usual_min) + " - " +
             size_text(stat.usual_max) + ")";
    case PayloadTextForm::Count:
      return count_text(stat.current_value) + kUsualOpen + count_text(stat.usual_min) + " - " +
             count_text(stat.usual_max) + ")";
    case PayloadTextForm::Ratio:
      break;
  }
  return ratio_text(stat.current_value) + kUsualOpen + ratio_text(stat.usual_min) + " - " +
         ratio_text(stat.usual_max) + ")";
}

std::string build(const Row& record, const AnomalyStats& stats, int full_feature_set, const std::string& id,
                  const ClosestClusterInfo& closest, time_t now) {
  Json root = Json::object();
  root.set("DetectionType", Json::string("dbscan"));
  root.set("DetectionTime", Json::string(detection_time_text(now)));
  root.set("SizeUnit", Json::string(kSizeUnit));

  Json attributes = names_object(record);
  int count = 0;
  std::string summary;
  for (const Feature f : kReportOrder) {
    const FeatureInfo& info = feature_info(f);
    const auto found = stats.find(info.column);
    // Without the full feature set only the fallback's features are shown,
    // whatever the statistics hold.
    if (found == stats.end() || (!info.in_fallback_set && full_feature_set != 1)) {
      continue;
    }
    attributes.set(info.payload_member, Json::string(attribute_text(info.text_form, found->second)));
    summary += std::string(info.summary_name) + ",";
    ++count;
  }
  attributes.set("anomalyFeedback", Json::string(kFeedbackLabel));
  attributes.set("anomalyId", Json::string(id));
  if (!summary.empty()) {
    summary.pop_back();
  }
  attributes.set("summary", Json::string(summary));
  attributes.set("count", Json::string(std::to_string(count)));
  attributes.set("score", Json::string(fixed2(closest.distance)));
  attributes.set("storageName", Json::string(cell_text(record, "DESTINATION_STORAGE_NAME")));
  root.set("Attributes", std::move(attributes));
  return root.dump();
}

std::optional<Reading> parse_reading(const std::string& text) {
  const std::string open = kUsualOpen;
  const std::size_t at = text.find(open);
  if (at == std::string::npos || text.empty() || text.back() != ')') return std::nullopt;
  const std::string usual = text.substr(at + open.size(), text.size() - 1 - at - open.size());
  // The separator has a blank on both sides, so "-1 - -1" splits correctly.
  const std::size_t dash = usual.find(" - ");
  if (dash == std::string::npos) return std::nullopt;
  Reading reading;
  reading.current_text = trim(text.substr(0, at));
  reading.low_text = trim(usual.substr(0, dash));
  reading.high_text = trim(usual.substr(dash + 3));
  const auto current = number_with_unit(reading.current_text);
  const auto low = number_with_unit(reading.low_text);
  const auto high = number_with_unit(reading.high_text);
  if (!current || !low || !high) return std::nullopt;
  reading.current = *current;
  reading.low = *low;
  reading.high = *high;
  return reading;
}

double text_to_stored(PayloadTextForm form) { return form == PayloadTextForm::Size ? 1024.0 : 1.0; }

Fields parse(const std::string& document) {
  Fields fields;
  const Json root = Json::parse(document);
  fields.detection_time = member_text(root, "DetectionTime");
  const Json attributes = root.member("Attributes");
  fields.job_id = attributes.member("jobid").as_integer().value_or(0);
  fields.client = member_text(attributes, "clientName");
  fields.policy = member_text(attributes, "policyName");
  fields.policy_type = member_text(attributes, "policyType");
  fields.schedule_name = member_text(attributes, "scheduleName");
  fields.storage_name = member_text(attributes, "storageName");
  fields.anomaly_id = member_text(attributes, "anomalyId");
  fields.summary = member_text(attributes, "summary");
  fields.count = member_text(attributes, "count");
  fields.score = member_text(attributes, "score");
  for (const Feature f : kReportOrder) {
    const char* member = feature_info(f).payload_member;
    if (attributes.member(member).valid()) {
      fields.attributes.emplace_back(member, member_text(attributes, member));
    }
  }
  return fields;
}

std::vector<std::string> summary_names(const std::string& summary) {
  std::vector<std::string> names;
  std::size_t start = 0;
  while (start <= summary.size()) {
    std::size_t end = summary.find(',', start);
    if (end == std::string::npos) end = summary.size();
    const std::string name = trim(summary.substr(start, end - start));
    if (!name.empty()) names.push_back(name);
    start = end + 1;
  }
  return names;
}

}  // namespace anomaly_payload
