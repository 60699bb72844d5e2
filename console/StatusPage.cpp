#include "console/ConsolePages.h"

#include "platform/LocalTime.h"
#include "report/HtmlEscape.h"

// The status page: the queue, the detector, the anomalies by state, what the
// next pass cannot judge, the alert channels and the last 30 days.
namespace console_pages {

namespace {

// The pending jobs the next pass would leave pending, with what changes it.
std::string unjudgeable_section(const StatusFigures& figures) {
  if (!figures.unjudgeable) return "";
  const UnjudgeableCount& u = *figures.unjudgeable;
  std::string out = "<h2>Jobs the next pass cannot judge</h2><dl class=\"figures\">";
  out += "<div data-figure=\"unjudgeable\"><dt>Cannot be judged</dt><dd>" + std::to_string(u.total()) + "</dd></div>";
  out += "<div data-figure=\"unequal-features\"><dt>Unequal feature sets</dt><dd>" +
         std::to_string(u.unequal_features) + "</dd></div>";
  out += "<div data-figure=\"features-disabled\"><dt>Every feature disabled</dt><dd>" +
         std::to_string(u.features_disabled) + "</dd></div></dl>\n";
  if (u.unequal_features > 0) {
    out += "<p class=\"note\">Jobs of workloads that moved storage: set [ANOMALY_MODEL_SETTINGS] "
           "JUDGE_ON_FALLBACK_FEATURES=1 to judge them on the two features of their history across storages.</p>\n";
  }
  if (u.features_disabled > 0) {
    out += "<p class=\"note\">See [DISABLE_FEATURE_PER_POLICY_TYPE] in the configuration.</p>\n";
  }
  return out;
}

// Each alert channel's deliveries.
std::string alerts_section(const StatusFigures& figures) {
  if (figures.alert_channels.empty()) return "";
  std::string out = "<h2>Alerts</h2><table class=\"alerts\"><tr><th>Channel</th><th>Delivered</th><th>Failing</th>"
                    "<th>Given up</th><th>Oldest undelivered</th></tr>";
  for (const ChannelFigures& c : figures.alert_channels) {
    out += "<tr data-channel=\"" + html_escape(c.channel) + "\"><td>" + html_escape(c.channel) + "</td><td>" +
           std::to_string(c.delivered) + "</td><td>" + std::to_string(c.failing) + "</td><td>" +
           std::to_string(c.given_up) + "</td><td>" +
           (c.oldest_undelivered_age ? std::to_string(*c.oldest_undelivered_age) + " s" : std::string("-")) +
           "</td></tr>";
  }
  return out + "</table>\n";
}

}  // namespace

std::string status_page(const StatusFigures& figures, const std::vector<std::pair<std::string, long long>>& per_day,
                        time_t now) {
  const auto figure = [](const char* name, const char* label, long long value) {
    return std::string("<div data-figure=\"") + name + "\"><dt>" + label + "</dt><dd>" + std::to_string(value) +
           "</dd></div>";
  };
  std::string body = "<header class=\"top\"><h1>Status</h1><p class=\"meta\">Newest detection: " +
                     (figures.newest_detection > 0 ? html_escape(local_time_text(figures.newest_detection))
                                                   : std::string("none yet")) +
                     "</p></header>\n<h2>Queue</h2><dl class=\"figures\">";
  body += figure("pending", "Pending jobs", figures.pending);
  body += figure("awaiting-verdict", "Reported, awaiting verdict", figures.awaiting_verdict);
  body += "</dl>\n<h2>Detector</h2><p class=\"meta\">History counted " +
          html_escape(local_time_text(figures.history_counted)) + " (every minute).</p><dl class=\"figures\">";
  body += figure("history-rows", "History rows", figures.history_rows);
  body += figure("workloads", "Workloads", figures.workloads);
  body += figure("models", "Calibrated models", figures.models);
  body += "</dl>\n<h2>Anomalies</h2><dl class=\"figures\">";
  body += figure("anomalies", "All anomalies", figures.anomalies);
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    body += figure(info.slug, info.label, figures.by_state[static_cast<int>(info.state)]);
  }
  body += "</dl>\n" + unjudgeable_section(figures) + alerts_section(figures);
  body += "<h2>Anomalies per day, last 30 days</h2>\n" + days_chart(per_day, now) + "\n";
  return layout("Status", body);
}

}  // namespace console_pages
