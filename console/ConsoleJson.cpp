#include "console/ConsoleJson.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

#include "platform/LocalTime.h"
#include "platform/VisibleText.h"
#include "contract/Features.h"
#include "report/HtmlReport.h"
#include "util/Text.h"
#include "console/UrlText.h"

namespace console_json {
namespace {

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

json_t* text(const std::string& value) { return json_string(text::as_utf8(value).c_str()); }

std::string dump(json_t* root) {
  Json owner(root, json_decref);
  char* out = json_dumps(root, JSON_COMPACT | JSON_PRESERVE_ORDER);
  std::string result = out != nullptr ? out : "{}";
  std::free(out);
  return result;
}

void set_time(json_t* object, time_t t) {
  json_object_set_new(object, "detection_time", json_string(local_time_text(t).c_str()));
  json_object_set_new(object, "detection_epoch", json_integer(static_cast<json_int_t>(t)));
}

json_t* point(time_t t, double value) {
  json_t* pair = json_array();
  json_array_append_new(pair, json_integer(static_cast<json_int_t>(t)));
  json_array_append_new(pair, json_real(value));
  return pair;
}

// One feature out of range: its texts and the data its chart draws.
json_t* feature(const std::string& member, const std::string& attribute, const WorkloadHistory& history) {
  json_t* out = json_object();
  json_object_set_new(out, "member", text(member));
  json_object_set_new(out, "text", text(attribute));
  const FeatureInfo* info = feature_by_member(member);
  if (info != nullptr) json_object_set_new(out, "title", json_string(info->title));
  const auto chart = HtmlReport::chart_for(member, attribute, history);
  if (info == nullptr || !chart) return out;
  json_t* data = json_object();
  json_t* points = json_array();
  for (const HistoryPoint& p : history.history) json_array_append_new(points, point(p.backup_time, p.features[info->feature]));
  json_object_set_new(data, "history", points);
  json_object_set_new(data, "job", point(history.job.backup_time, history.job.features[info->feature]));
  if (chart->usual()) {
    json_t* usual = json_object();
    json_object_set_new(usual, "low", json_real(chart->usual()->low));
    json_object_set_new(usual, "high", json_real(chart->usual()->high));
    json_object_set_new(data, "usual", usual);
  }
  json_object_set_new(out, "chart", data);
  return out;
}

}  // namespace

std::string anomaly_list(const std::vector<ListedAnomaly>& rows, const ListTotals& totals, const ListQuery& query) {
  json_t* root = json_object();
  json_t* items = json_array();
  for (const ListedAnomaly& row : rows) {
    json_t* item = json_object();
    json_object_set_new(item, "id", text(row.id));
    json_object_set_new(item, "client", text(row.client));
    json_object_set_new(item, "policy", text(row.policy));
    set_time(item, row.detection_time);
    json_object_set_new(item, "summary", text(row.summary));
    json_object_set_new(item, "score", text(row.score));
    json_object_set_new(item, "state", json_string(state_info(row.state).slug));
    json_object_set_new(item, "url", text(anomaly_path(row.id)));
    json_array_append_new(items, item);
  }
  json_object_set_new(root, "anomalies", items);
  json_object_set_new(root, "total", json_integer(totals.anomalies));
  json_object_set_new(root, "limit", json_integer(query.limit));
  json_object_set_new(root, "offset", json_integer(query.offset));
  return dump(root);
}

std::string anomaly(const AnomalyDetail& detail) {
  const AnomalyRecord& record = detail.record;
  json_t* root = json_object();
  json_object_set_new(root, "id", text(record.id));
  json_object_set_new(root, "client", text(record.client));
  json_object_set_new(root, "policy", text(record.policy));
  json_object_set_new(root, "policy_type", text(record.policy_type));
  json_object_set_new(root, "schedule_name", text(record.schedule_name));
  json_object_set_new(root, "storage_name", text(record.storage_name));
  set_time(root, record.detection_time);
  json_object_set_new(root, "state", json_string(state_info(detail.state).slug));
  json_object_set_new(root, "summary", text(record.summary));
  json_object_set_new(root, "score", text(record.score));
  json_object_set_new(root, "job_in_queue", json_boolean(detail.history.job_found));
  json_t* payload = json_loads(text::as_utf8(record.payload).c_str(), 0, nullptr);
  json_object_set_new(root, "payload", payload != nullptr ? payload : text(record.payload));
  json_t* features = json_array();
  for (const auto& [member, attribute] : record.attributes) {
    json_array_append_new(features, feature(member, attribute, detail.history));
  }
  json_object_set_new(root, "features", features);
  return dump(root);
}

std::string status(const StatusFigures& figures, const std::vector<std::pair<std::string, long long>>& per_day) {
  json_t* root = json_object();
  json_object_set_new(root, "pending_jobs", json_integer(figures.pending));
  json_object_set_new(root, "awaiting_verdict", json_integer(figures.awaiting_verdict));
  json_object_set_new(root, "history_rows", json_integer(figures.history_rows));
  json_object_set_new(root, "workloads", json_integer(figures.workloads));
  json_object_set_new(root, "history_counted_epoch", json_integer(static_cast<json_int_t>(figures.history_counted)));
  json_object_set_new(root, "calibrated_models", json_integer(figures.models));
  json_object_set_new(root, "newest_detection_epoch", json_integer(static_cast<json_int_t>(figures.newest_detection)));
  json_t* states = json_object();
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    json_object_set_new(states, info.slug, json_integer(figures.by_state[static_cast<int>(info.state)]));
  }
  json_object_set_new(root, "anomalies_by_state", states);
  if (figures.unjudgeable) {
    json_t* unjudgeable = json_object();
    json_object_set_new(unjudgeable, "unequal_features", json_integer(figures.unjudgeable->unequal_features));
    json_object_set_new(unjudgeable, "features_disabled", json_integer(figures.unjudgeable->features_disabled));
    json_object_set_new(unjudgeable, "pass_failed", json_integer(figures.unjudgeable->pass_failed));
    json_object_set_new(root, "pending_jobs_not_judgeable", unjudgeable);
  }
  json_t* channels = json_array();
  for (const ChannelFigures& c : figures.alert_channels) {
    json_t* channel = json_object();
    json_object_set_new(channel, "channel", text(c.channel));
    json_object_set_new(channel, "delivered", json_integer(c.delivered));
    json_object_set_new(channel, "failing", json_integer(c.failing));
    json_object_set_new(channel, "given_up", json_integer(c.given_up));
    json_object_set_new(channel, "oldest_undelivered_age_seconds",
                        c.oldest_undelivered_age ? json_integer(*c.oldest_undelivered_age) : json_null());
    json_array_append_new(channels, channel);
  }
  json_object_set_new(root, "alert_channels", channels);
  json_t* days = json_array();
  for (const auto& [day, n] : per_day) {
    json_t* item = json_object();
    json_object_set_new(item, "day", json_string(day.c_str()));
    json_object_set_new(item, "anomalies", json_integer(n));
    json_array_append_new(days, item);
  }
  json_object_set_new(root, "anomalies_per_day", days);
  return dump(root);
}

std::string verdict(const std::string& id, VerdictOutcome outcome, AnomalyState state) {
  json_t* root = json_object();
  json_object_set_new(root, "id", text(id));
  json_object_set_new(root, "changed", json_boolean(outcome == VerdictOutcome::recorded));
  json_object_set_new(root, "state", json_string(state_info(state).slug));
  return dump(root);
}

std::string error(int status, const std::string& message) {
  json_t* body = json_object();
  json_object_set_new(body, "status", json_integer(status));
  json_object_set_new(body, "message", text(message));
  json_t* root = json_object();
  json_object_set_new(root, "error", body);
  return dump(root);
}

}  // namespace console_json
