#include "alerts/AlertmanagerAlert.h"

#include <utility>

#include "alerts/UtcTime.h"

namespace alertmanager {

namespace {

constexpr time_t kTestSeconds = 300;

Json element(Json labels, const std::string& summary, const std::string& link, time_t starts, time_t ends) {
  Json annotations = Json::object();
  annotations.set("summary", Json::string(summary));
  if (!link.empty()) annotations.set("link", Json::string(link));
  Json alert = Json::object();
  alert.set("labels", std::move(labels));
  alert.set("annotations", std::move(annotations));
  alert.set("startsAt", Json::string(utc_time_text(starts)));
  alert.set("endsAt", Json::string(utc_time_text(ends)));
  return alert;
}

}  // namespace

const char* severity(std::optional<double> score) {
  if (!score) return "warning";
  if (*score >= kCriticalScore) return "critical";
  return *score >= kWarningScore ? "warning" : "info";
}

Json anomaly_alert(const AnomalyAlert& a, const std::string& summary) {
  Json labels = Json::object();
  labels.set("alertname", Json::string(kAlertName));
  labels.set("client", Json::string(a.client));
  labels.set("policy", Json::string(a.policy));
  labels.set("schedule", Json::string(a.schedule));
  labels.set("storage", Json::string(a.storage));
  labels.set("severity", Json::string(severity(a.score_number())));
  labels.set("anomaly_id", Json::string(a.id));
  return element(std::move(labels), summary, a.link, a.detection_time, a.detection_time + kActiveSeconds);
}

Json test_alert(const std::string& summary, const std::string& link, time_t now) {
  Json labels = Json::object();
  labels.set("alertname", Json::string(kTestAlertName));
  labels.set("severity", Json::string("info"));
  return element(std::move(labels), summary, link, now, now + kTestSeconds);
}

Json ended(const std::string& element, time_t ends_at) {
  Json alert = Json::parse(element);
  if (!alert.member("labels").valid() || !alert.member("startsAt").as_text()) return Json();
  alert.set("endsAt", Json::string(utc_time_text(ends_at)));
  return alert;
}

}  // namespace alertmanager
