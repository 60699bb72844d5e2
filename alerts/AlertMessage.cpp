#include "alerts/AlertMessage.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "alerts/AlertmanagerAlert.h"
#include "alerts/UtcTime.h"
#include "platform/LocalTime.h"
#include "platform/VisibleText.h"
#include "contract/AnomalyPayload.h"
#include "operator/AnomalyHandle.h"
#include "util/Json.h"
#include "util/Text.h"

namespace {

// Longest text kept from one database field, in bytes.
constexpr std::size_t kMaxField = 256;
// Anomalies named in a summary's line, and listed in its text.
constexpr std::size_t kNamedInLine = 5;
constexpr std::size_t kListedInText = 100;
constexpr const char* kDot = " \u00b7 ";
constexpr const char* kDash = "\u2013";

// Valid UTF-8, at most kMaxField bytes, never cut inside a character.
std::string bounded(const std::string& raw) {
  std::string text = text::as_utf8(raw);
  if (text.size() <= kMaxField) return text;
  std::size_t end = 0;
  while (end < text.size()) {
    const std::size_t length = text::utf8_sequence_length(text, end);
    if (end + length > kMaxField) break;
    end += length;
  }
  return text.substr(0, end) + "\u2026";
}

// For texts: bounded, and every control character shown as an escape.
std::string shown(const std::string& raw) { return visible_text(bounded(raw)); }

const char* unit_suffix(FeatureUnit unit) {
  switch (unit) {
    case FeatureUnit::Seconds: return " s";
    case FeatureUnit::Kilobytes: return " MB";  // payload texts are in MB
    default: return "";
  }
}

std::string without_unit(std::string text) {
  const std::string suffix = std::string(" ") + anomaly_payload::kSizeUnit;
  if (text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0) {
    text.resize(text.size() - suffix.size());
  }
  return text;
}

std::optional<double> change_percent(double current, double low, double high) {
  const double edge = current > high ? high : current < low ? low : 0;
  if (edge == 0 || !std::isfinite(current) || !std::isfinite(edge)) return std::nullopt;
  return (current - edge) / std::fabs(edge) * 100.0;
}

std::string percent_text(double percent) {
  const long long rounded = std::llround(percent);
  return (rounded >= 0 ? "+" : "") + std::to_string(rounded) + "%";
}

std::optional<AlertFeature> feature_of(const std::string& member, const std::string& text) {
  const FeatureInfo* info = feature_by_member(member);
  const auto reading = anomaly_payload::parse_reading(text);
  if (info == nullptr || !reading) return std::nullopt;
  AlertFeature feature{info,          shown(without_unit(reading->current_text)),
                       shown(without_unit(reading->low_text)), shown(without_unit(reading->high_text)),
                       reading->current, reading->low, reading->high, std::nullopt};
  feature.change_percent = change_percent(reading->current, reading->low, reading->high);
  return feature;
}

std::string lower_title(const FeatureInfo& info) { return text::to_lower(info.title); }

// "time taken 30752 s, usual 4045–5250 s (+486%)"
std::string feature_phrase(const AlertFeature& f) {
  const char* unit = unit_suffix(f.info->unit);
  std::string phrase = lower_title(*f.info) + " " + f.value + unit + ", usual " + f.usual_min + kDash + f.usual_max + unit;
  if (f.change_percent) phrase += " (" + percent_text(*f.change_percent) + ")";
  return phrase;
}

std::string headline(const AnomalyAlert& a) {
  std::string what = a.features.empty() ? (a.summary.empty() ? "anomaly reported" : a.summary)
                                        : feature_phrase(a.features.front());
  return a.client + kDot + a.policy + kDot + a.schedule + ": " + what;
}

std::string details(const AnomalyAlert& a) {
  std::string text;
  for (std::size_t i = 1; i < a.features.size(); ++i) text += feature_phrase(a.features[i]) + "\n";
  text += "score " + a.score + kDot + "policy type " + a.policy_type + kDot + "storage " + a.storage + kDot +
          "detected " + local_time_text(a.detection_time) + "\n";
  if (!a.link.empty()) text += a.link + "\n";
  return text;
}

Json string_or_null(const std::string& text) { return text.empty() ? Json::null() : Json::string(text); }

Json feature_json(const AlertFeature& f) {
  Json object = Json::object();
  object.set("name", Json::string(lower_title(*f.info)));
  object.set("value", Json::real(f.current));
  object.set("usual_min", Json::real(f.low));
  object.set("usual_max", Json::real(f.high));
  object.set("unit", Json::string(unit_suffix(f.info->unit)[0] ? unit_suffix(f.info->unit) + 1 : ""));
  object.set("change_percent", f.change_percent ? Json::real(std::round(*f.change_percent)) : Json::null());
  return object;
}

// The document of one anomaly, without its texts (the caller adds them).
Json anomaly_json(const AnomalyAlert& a) {
  Json object = Json::object();
  object.set("id", Json::string(a.id));
  object.set("client", Json::string(a.client));
  object.set("policy", Json::string(a.policy));
  object.set("policy_type", Json::string(a.policy_type));
  object.set("schedule", Json::string(a.schedule));
  object.set("storage", Json::string(a.storage));
  object.set("detection_time", Json::string(utc_time_text(a.detection_time)));
  const std::optional<double> score = a.score_number();
  object.set("score", score ? Json::real(*score) : Json::null());
  Json features = Json::array();
  for (const AlertFeature& f : a.features) features.append(feature_json(f));
  object.set("features", std::move(features));
  object.set("link", string_or_null(a.link));
  return object;
}

std::string dump(Json document, const std::string& type, const AlertMessage& message) {
  document.set("type", Json::string(type));
  document.set("summary", Json::string(message.line));
  document.set("text", Json::string(message.text));
  return document.dump({.compact = true, .real_precision = 15, .escape_separators = true});
}

std::string alertmanager_text(const Json& alert) { return alert.dump({.compact = true, .keep_order = true, .escape_separators = true}); }

}  // namespace

std::optional<double> AnomalyAlert::score_number() const {
  char* end = nullptr;
  const double value = std::strtod(score.c_str(), &end);
  if (end == score.c_str() || *end != '\0' || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::string console_link(const std::string& console_url, const std::string& id) {
  if (console_url.empty()) return "";
  static const char* kHex = "0123456789ABCDEF";
  std::string link = console_url + "/anomalies/";
  for (unsigned char c : anomaly_handle::of(id)) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      link += static_cast<char>(c);
    } else {
      link += '%';
      link += kHex[c >> 4];
      link += kHex[c & 15];
    }
  }
  return link;
}

AnomalyAlert AnomalyAlert::from_row(const std::string& id, const std::string& client, time_t detection_time,
                                    const std::string& payload, const std::string& console_url) {
  anomaly_payload::Fields fields = anomaly_payload::parse(payload);
  AnomalyAlert a;
  a.id = shown(id);
  a.client = shown(client);
  a.policy = shown(fields.policy);
  a.policy_type = shown(fields.policy_type);
  a.schedule = shown(fields.schedule_name);
  a.storage = shown(fields.storage_name);
  a.score = shown(fields.score);
  a.summary = shown(fields.summary);
  a.detection_time = detection_time;
  for (const auto& [member, text] : fields.attributes) {
    if (auto feature = feature_of(member, text)) a.features.push_back(*feature);
  }
  std::stable_sort(a.features.begin(), a.features.end(), [](const AlertFeature& x, const AlertFeature& y) {
    return std::fabs(x.change_percent.value_or(-1)) > std::fabs(y.change_percent.value_or(-1));
  });
  // The link addresses the anomaly by its real id, percent-encoded (plain
  // ASCII); an id too long for any sane URL gets none.
  if (id.size() <= kMaxField) a.link = console_link(console_url, id);
  return a;
}

AlertMessage AlertMessage::for_anomaly(const AnomalyAlert& alert) {
  AlertMessage message;
  message.key = alert.id;
  message.line = headline(alert);
  message.text = message.line + "\n" + details(alert);
  message.json = dump(anomaly_json(alert), "anomaly", message);
  message.alertmanager = {alertmanager_text(alertmanager::anomaly_alert(alert, message.line))};
  return message;
}

AlertMessage AlertMessage::summary(const std::vector<AnomalyAlert>& alerts) {
  AlertMessage message;
  message.line = std::to_string(alerts.size()) + " new backup anomalies: ";
  // The same batch, sent again after a crash, carries the same key.
  message.key = "summary:" + (alerts.empty() ? std::string() : alerts.front().id) + ":" + std::to_string(alerts.size());
  message.text = "\n";
  Json list = Json::array();
  for (std::size_t i = 0; i < alerts.size(); ++i) {
    const AnomalyAlert& a = alerts[i];
    if (i < kNamedInLine) message.line += (i ? ", " : "") + a.client + kDot + a.policy;
    if (i < kListedInText) message.text += headline(a) + (a.link.empty() ? "" : "  " + a.link) + "\n";
    Json item = anomaly_json(a);
    const std::string line = headline(a);
    item.set("summary", Json::string(line));
    list.append(std::move(item));
    // Alertmanager groups alerts itself: each anomaly stays one alert there.
    message.alertmanager.push_back(alertmanager_text(alertmanager::anomaly_alert(a, line)));
  }
  if (alerts.size() > kNamedInLine) message.line += " and " + std::to_string(alerts.size() - kNamedInLine) + " more";
  if (alerts.size() > kListedInText) {
    message.text += "\u2026 and " + std::to_string(alerts.size() - kListedInText) + " more\n";
  }
  message.text = message.line + message.text;
  Json document = Json::object();
  document.set("count", Json::integer(alerts.size()));
  document.set("anomalies", std::move(list));
  message.json = dump(std::move(document), "summary", message);
  return message;
}

AlertMessage AlertMessage::test(const std::string& console_url, time_t now) {
  AlertMessage message;
  message.key = "alert-test-" + std::to_string(now);
  message.line = "tsanomalydetect alert test: this channel works (no anomaly was found)";
  message.text = message.line + "\nsent " + local_time_text(now) + " by 'tsanomalyctl alert-test'\n";
  if (!console_url.empty()) message.text += shown(console_url) + "\n";
  Json document = Json::object();
  document.set("id", Json::string(message.key));
  document.set("detection_time", Json::string(utc_time_text(now)));
  document.set("link", string_or_null(shown(console_url)));
  message.json = dump(std::move(document), "test", message);
  message.alertmanager = {alertmanager_text(alertmanager::test_alert(message.line, shown(console_url), now))};
  return message;
}

AlertMessage AlertMessage::resolved(const std::vector<std::string>& alerts, time_t now) {
  AlertMessage message;
  message.key = "resolved:" + std::to_string(now) + ":" + std::to_string(alerts.size());
  message.line = std::to_string(alerts.size()) + " backup anomaly alerts resolved by a verdict";
  message.text = message.line + "\n";
  for (const std::string& alert : alerts) {
    Json ended = alertmanager::ended(alert, now);
    if (ended.valid()) message.alertmanager.push_back(alertmanager_text(ended));
  }
  return message;
}
