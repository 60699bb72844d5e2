#include "console/ConsoleJson.h"

#include <utility>

#include "platform/LocalTime.h"
#include "platform/VisibleText.h"
#include "contract/Features.h"
#include "report/HtmlReport.h"
#include "util/Json.h"
#include "console/TriageRequest.h"
#include "console/UrlText.h"

namespace console_json {
namespace {

constexpr std::size_t kMaxPayloadBytes = 64 * 1024;

std::string dump(const Json& root) { return root.dump({.compact = true, .keep_order = true, .escape_separators = true}); }

void set_time(Json& object, time_t t) {
  object.set("detection_time", Json::string(local_time_text(t)));
  object.set("detection_epoch", Json::integer(t));
}

Json point(time_t t, double value) {
  Json pair = Json::array();
  pair.append(Json::integer(t));
  pair.append(Json::real(value));
  return pair;
}

// One feature out of range: its texts and the data its chart draws.
Json feature(const std::string& member, const std::string& attribute, const WorkloadHistory& history) {
  Json out = Json::object();
  out.set("member", Json::string(member));
  out.set("text", Json::string(attribute));
  const FeatureInfo* info = feature_by_member(member);
  if (info != nullptr) out.set("title", Json::string(info->title));
  const auto chart = HtmlReport::chart_for(member, attribute, history);
  if (info == nullptr || !chart) return out;
  Json data = Json::object();
  Json points = Json::array();
  for (const HistoryPoint& p : history.history) points.append(point(p.backup_time, p.features[info->feature]));
  data.set("history", std::move(points));
  data.set("history_jobs", Json::integer(history.history_jobs));
  data.set("history_averaged", Json::boolean(history.averaged));
  data.set("job", point(history.job.backup_time, history.job.features[info->feature]));
  if (chart->usual()) {
    Json usual = Json::object();
    usual.set("low", Json::real(chart->usual()->low));
    usual.set("high", Json::real(chart->usual()->high));
    data.set("usual", std::move(usual));
  }
  out.set("chart", std::move(data));
  return out;
}

}  // namespace

std::string anomaly_list(const std::vector<ListedAnomaly>& rows, const ListTotals& totals, const ListQuery& query) {
  Json root = Json::object();
  Json items = Json::array();
  for (const ListedAnomaly& row : rows) {
    Json item = Json::object();
    item.set("id", Json::string(row.id));
    item.set("client", Json::string(row.client));
    item.set("policy", Json::string(row.policy));
    set_time(item, row.detection_time);
    item.set("summary", Json::string(row.summary));
    item.set("score", Json::string(row.score));
    item.set("state", Json::string(state_info(row.state).slug));
    item.set("url", Json::string(anomaly_path(row.id)));
    items.append(std::move(item));
  }
  root.set("anomalies", std::move(items));
  root.set("total", Json::integer(totals.anomalies));
  root.set("limit", Json::integer(query.limit));
  root.set("offset", Json::integer(query.offset));
  return dump(root);
}

std::string anomaly(const AnomalyDetail& detail, Json why) {
  const AnomalyRecord& record = detail.record;
  Json root = Json::object();
  root.set("id", Json::string(record.id));
  root.set("client", Json::string(record.client));
  root.set("policy", Json::string(record.policy));
  root.set("policy_type", Json::string(record.policy_type));
  root.set("schedule_name", Json::string(record.schedule_name));
  root.set("storage_name", Json::string(record.storage_name));
  set_time(root, record.detection_time);
  root.set("state", Json::string(state_info(detail.state).slug));
  root.set("summary", Json::string(record.summary));
  root.set("score", Json::string(record.score));
  root.set("job_in_queue", Json::boolean(detail.history.job_found));
  // A payload the detector wrote is a few KiB; one grown beyond the bound
  // is named by its size only, so the answer stays bounded.
  if (record.payload.size() <= kMaxPayloadBytes) {
    root.set("payload", Json::parsed_or_string(record.payload));
  } else {
    Json omitted = Json::object();
    omitted.set("omitted_bytes", Json::integer(static_cast<long long>(record.payload.size())));
    root.set("payload", std::move(omitted));
  }
  Json features = Json::array();
  for (const auto& [member, attribute] : record.attributes) {
    features.append(feature(member, attribute, detail.history));
  }
  root.set("features", std::move(features));
  root.set("why", std::move(why));
  root.set("workload_url", Json::string(workload_path_of(record.id)));
  return dump(root);
}

std::string status(const StatusFigures& figures, const std::vector<std::pair<std::string, long long>>& per_day) {
  Json root = Json::object();
  root.set("pending_jobs", Json::integer(figures.pending));
  root.set("awaiting_verdict", Json::integer(figures.awaiting_verdict));
  root.set("history_rows", Json::integer(figures.history_rows));
  root.set("workloads", Json::integer(figures.workloads));
  root.set("history_counted_epoch", Json::integer(figures.history_counted));
  root.set("calibrated_models", Json::integer(figures.models));
  root.set("newest_detection_epoch", Json::integer(figures.newest_detection));
  Json states = Json::object();
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    states.set(info.slug, Json::integer(figures.by_state[static_cast<int>(info.state)]));
  }
  root.set("anomalies_by_state", std::move(states));
  if (figures.unjudgeable) {
    Json unjudgeable = Json::object();
    unjudgeable.set("unequal_features", Json::integer(figures.unjudgeable->unequal_features));
    unjudgeable.set("features_disabled", Json::integer(figures.unjudgeable->features_disabled));
    unjudgeable.set("pass_failed", Json::integer(figures.unjudgeable->pass_failed));
    root.set("pending_jobs_not_judgeable", std::move(unjudgeable));
  }
  Json channels = Json::array();
  for (const ChannelFigures& c : figures.alert_channels) {
    Json channel = Json::object();
    channel.set("channel", Json::string(c.channel));
    channel.set("delivered", Json::integer(c.delivered));
    channel.set("failing", Json::integer(c.failing));
    channel.set("given_up", Json::integer(c.given_up));
    channel.set("oldest_undelivered_age_seconds",
                c.oldest_undelivered_age ? Json::integer(*c.oldest_undelivered_age) : Json::null());
    channels.append(std::move(channel));
  }
  root.set("alert_channels", std::move(channels));
  Json days = Json::array();
  for (const auto& [day, n] : per_day) {
    Json item = Json::object();
    item.set("day", Json::string(day));
    item.set("anomalies", Json::integer(n));
    days.append(std::move(item));
  }
  root.set("anomalies_per_day", std::move(days));
  return dump(root);
}

std::string verdict(const std::string& id, VerdictOutcome outcome, AnomalyState state) {
  Json root = Json::object();
  root.set("id", Json::string(id));
  root.set("changed", Json::boolean(outcome == VerdictOutcome::recorded));
  root.set("state", Json::string(state_info(state).slug));
  return dump(root);
}

std::string triage(Verdict verdict, const std::vector<std::string>& ids, const std::vector<VerdictOutcome>& outcomes) {
  Json root = Json::object();
  root.set("verdict", Json::string(verdict_slug(verdict)));
  root.set("requested", Json::integer(static_cast<long long>(ids.size())));
  long long changed = 0;
  Json results = Json::array();
  for (std::size_t i = 0; i < ids.size() && i < outcomes.size(); ++i) {
    Json item = Json::object();
    item.set("id", Json::string(ids[i]));
    item.set("outcome", Json::string(outcome_slug(outcomes[i])));
    item.set("changed", Json::boolean(outcomes[i] == VerdictOutcome::recorded));
    item.set("message", Json::string(outcome_sentence(outcomes[i])));
    changed += outcomes[i] == VerdictOutcome::recorded ? 1 : 0;
    results.append(std::move(item));
  }
  root.set("changed", Json::integer(changed));
  root.set("results", std::move(results));
  return dump(root);
}

std::string error(int status, const std::string& message) {
  Json body = Json::object();
  body.set("status", Json::integer(status));
  body.set("message", Json::string(message));
  Json root = Json::object();
  root.set("error", std::move(body));
  return dump(root);
}

}  // namespace console_json
