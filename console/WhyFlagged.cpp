#include "console/WhyFlagged.h"

#include <cstdio>

#include "platform/LocalTime.h"
#include "operator/ErrorText.h"
#include "report/HtmlEscape.h"

namespace {

// The rules that may accept a job once it has been clustered, in pass order.
struct RuleInfo {
  DecidingRule rule;
  const char* title;
  const char* refused;  // why it did not accept the job
};
constexpr RuleInfo kRules[] = {
    {DecidingRule::clustered, "The job lies in a cluster of usual jobs",
     "DBSCAN labelled it noise: no cluster within eps"},
    {DecidingRule::long_gap, "The workload's previous backup is long past",
     "the previous backup is recent enough to compare with"},
    {DecidingRule::user_verdict, "A job an operator confirmed as normal lies within eps",
     "no job confirmed by an operator lies within eps"},
    {DecidingRule::cluster_range, "Every feature lies inside the nearest cluster's usual range",
     "a feature lies outside the nearest cluster's range"},
};

std::string number(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

const char* training_name(TrainingKind kind) {
  switch (kind) {
    case TrainingKind::full: return "the job's own storage, five features";
    case TrainingKind::fallback: return "the workload across storages, two features";
    case TrainingKind::none: break;
  }
  return "none chosen";
}

// Whether the replay reached the rules that follow clustering.
bool reached_rules(const Judgement& j) { return j.clustered; }

// For each rule: "accepted", "refused" or "not reached".
const char* rule_result(const Judgement& j, DecidingRule rule) {
  if (j.rule == rule) return "accepted";
  if (j.rule == DecidingRule::reported || static_cast<int>(rule) < static_cast<int>(j.rule)) return "refused";
  return "not reached";
}

std::string out_of_range_columns(const Judgement& j) {
  std::string columns;
  for (const FeatureReading& r : j.readings) {
    if (!r.in_range) columns += (columns.empty() ? "" : ", ") + r.column;
  }
  return columns;
}

std::string fact(const char* label, const std::string& escaped) {
  return "<div><dt>" + std::string(label) + "</dt><dd>" + escaped + "</dd></div>";
}

std::string readings_table(const Judgement& j) {
  std::string out = "<table class=\"readings\"><thead><tr><th>Feature</th><th>This job</th><th>Usual range</th>"
                    "<th></th></tr></thead><tbody>";
  for (const FeatureReading& r : j.readings) {
    const std::string usual = r.usual ? number(r.usual->first) + " \xE2\x80\x93 " + number(r.usual->second)
                                      : std::string("no member to compare with");
    out += "<tr data-feature=\"" + html_escape(r.column) + "\"><td>" + html_escape(r.column) + "</td><td>" +
           number(r.value) + "</td><td>" + usual + "</td><td>" + (r.in_range ? "in range" : "<strong>outside</strong>") +
           "</td></tr>";
  }
  return out + "</tbody></table>";
}

std::string rules_list(const Judgement& j) {
  std::string out = "<ol class=\"rules\">";
  for (const RuleInfo& info : kRules) {
    const std::string result = rule_result(j, info.rule);
    std::string why = result == "refused" ? info.refused : "";
    if (info.rule == DecidingRule::cluster_range && result == "refused") why += ": " + out_of_range_columns(j);
    out += "<li data-rule-result=\"" + result + "\">" + info.title + " \xE2\x80\x94 <strong>" + result + "</strong>" +
           (why.empty() ? "" : " (" + html_escape(why) + ")") + "</li>";
  }
  return out + "</ol>";
}

std::string replay_section(const Judgement& j) {
  std::string out = "<p class=\"meta\">The detector's own pass, replayed now on the workload's current history "
                    "(as <code>tsanomalyctl explain</code> does). Outcome now: <strong class=\"replay-outcome\">" +
                    std::string(outcome_name(j.outcome)) + "</strong> \xE2\x80\x94 " + html_escape(j.reason) + "</p>";
  out += "<dl class=\"facts\">";
  out += fact("Training set", html_escape(training_name(j.training)) + ", " + std::to_string(j.training_size) +
                                  " jobs (minimum " + std::to_string(j.min_required) + ")");
  out += fact("Eps", number(j.model_eps) + " (adjusted " + number(j.adjusted_eps) + ", sensitivity " +
                         std::to_string(j.sensitivity) + ")");
  out += fact("DBSCAN label", std::to_string(j.label) + (j.label < 0 ? " (noise)" : " (in a cluster)"));
  if (j.nearest) {
    out += fact("Nearest usual cluster", std::to_string(j.nearest->cluster_id) + " at distance " +
                                             number(j.nearest->distance));
  }
  out += "</dl>";
  if (!j.readings.empty()) out += readings_table(j);
  if (reached_rules(j)) out += "<h3>Rules that could have accepted the job</h3>" + rules_list(j);
  if (!j.deciding_words.empty()) out += "<p>Deciding step: " + html_escape(j.deciding_words) + "</p>";
  return out;
}

}  // namespace

WhyFlagged why_flagged(const std::string& database_path, const AnomalyRecord& anomaly, bool job_queued,
                       const ReplaySettings& settings) {
  WhyFlagged why;
  AnomalyStore store(database_path);
  why.workload = store.workload_of(anomaly.detection_key);
  if (why.workload) {
    why.model = store.model_of(*why.workload);
    why.workload_rows = store.rows_on_any_storage(*why.workload);
  }
  if (!job_queued) {
    why.no_replay = "The job has left the detection queue, so the pass can no longer be replayed.";
  } else if (why.workload_rows > kMaxReplayRows) {
    why.no_replay = "The workload's history (" + std::to_string(why.workload_rows) +
                    " jobs) is too large to replay here; run tsanomalyctl explain on the job.";
  } else {
    try {
      why.replay = replay_judgement(database_path, anomaly.detection_key, settings);
    } catch (const std::exception& e) {
      why.no_replay = "The replay failed: " + ErrorText::of(e);
    }
  }
  return why;
}

std::string why_panel(const WhyFlagged& why, const AnomalyRecord& anomaly) {
  std::string out = "<section class=\"why\" aria-labelledby=\"why-title\"><h2 id=\"why-title\">Why this was "
                    "flagged</h2>";
  out += "<p>Reported with score <strong>" + html_escape(anomaly.score.empty() ? "unknown" : anomaly.score) +
         "</strong>: the job's distance to the nearest cluster of usual jobs when the pass judged it.</p>";
  if (why.replay) {
    out += replay_section(*why.replay);
  } else {
    out += "<p class=\"note\">" + html_escape(why.no_replay) +
           " The ranges below are the ones the stored report gives for the features that left them.</p>";
  }
  out += "<dl class=\"facts\">";
  out += fact("Workload history", std::to_string(why.workload_rows) + " jobs on every storage");
  out += fact("Model", why.model ? "eps " + number(why.model->first) + ", calibrated " +
                                       html_escape(local_time_text(why.model->second))
                                 : std::string("not calibrated"));
  out += "</dl></section>\n";
  return out;
}

Json why_json(const WhyFlagged& why, const AnomalyRecord& anomaly) {
  Json out = Json::object();
  out.set("score", Json::string(anomaly.score));
  out.set("workload_history_rows", Json::integer(why.workload_rows));
  out.set("model_eps", why.model ? Json::real(why.model->first) : Json::null());
  out.set("model_calibrated_epoch", why.model ? Json::integer(why.model->second) : Json::null());
  if (!why.replay) {
    out.set("replayed", Json::boolean(false));
    out.set("no_replay", Json::string(why.no_replay));
    return out;
  }
  const Judgement& j = *why.replay;
  out.set("replayed", Json::boolean(true));
  out.set("outcome_now", Json::string(outcome_name(j.outcome)));
  out.set("reason_now", Json::string(j.reason));
  out.set("training_set", Json::string(j.training == TrainingKind::full       ? "storage"
                                       : j.training == TrainingKind::fallback ? "fallback"
                                                                              : "none"));
  out.set("training_size", Json::integer(static_cast<long long>(j.training_size)));
  out.set("eps", Json::real(j.model_eps));
  out.set("adjusted_eps", Json::real(j.adjusted_eps));
  out.set("label", Json::integer(j.label));
  if (j.nearest) {
    Json nearest = Json::object();
    nearest.set("cluster", Json::integer(j.nearest->cluster_id));
    nearest.set("distance", Json::real(j.nearest->distance));
    Json ranges = Json::array();
    for (const FeatureReading& r : j.readings) {
      Json item = Json::object();
      item.set("feature", Json::string(r.column));
      item.set("value", Json::real(r.value));
      item.set("low", r.usual ? Json::real(r.usual->first) : Json::null());
      item.set("high", r.usual ? Json::real(r.usual->second) : Json::null());
      item.set("in_range", Json::boolean(r.in_range));
      ranges.append(std::move(item));
    }
    nearest.set("features", std::move(ranges));
    out.set("nearest_cluster", std::move(nearest));
  }
  Json rules = Json::array();
  if (reached_rules(j)) {
    for (const RuleInfo& info : kRules) {
      Json rule = Json::object();
      rule.set("rule", Json::string(info.title));
      rule.set("result", Json::string(rule_result(j, info.rule)));
      rules.append(std::move(rule));
    }
  }
  out.set("rules", std::move(rules));
  return out;
}
