#include "console/StatusMetrics.h"

namespace {

MetricFamily gauge(const char* name, const char* help, double value) {
  return {name, help, "gauge", {{{}, value}}};
}

// One sample per alert channel.
template <typename Value>
MetricFamily alert_family(const char* name, const char* help, const StatusFigures& figures, Value value) {
  MetricFamily family{name, help, "gauge", {}};
  for (const ChannelFigures& channel : figures.alert_channels) {
    family.samples.push_back({{{"channel", channel.channel}}, value(channel)});
  }
  return family;
}

}  // namespace

std::vector<MetricFamily> status_metrics(const StatusFigures& figures) {
  MetricFamily by_state{"tsanomaly_anomalies", "Reported anomalies by state.", "gauge", {}};
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    by_state.samples.push_back(
        {{{"state", info.slug}}, static_cast<double>(figures.by_state[static_cast<int>(info.state)])});
  }
  const auto n = [](long long v) { return static_cast<double>(v); };
  std::vector<MetricFamily> families{
      gauge("tsanomaly_pending_jobs", "Jobs in the queue waiting for a detection pass.", n(figures.pending)),
      gauge("tsanomaly_jobs_awaiting_verdict", "Reported jobs kept in the queue until an operator's verdict.",
            n(figures.awaiting_verdict)),
      std::move(by_state),
      gauge("tsanomaly_false_positives_learned",
            "Anomalies reported as false positives that a pass took into the history.",
            n(figures.by_state[static_cast<int>(AnomalyState::false_positive_learned)])),
      gauge("tsanomaly_history_rows", "Rows of the history the detector trains on.", n(figures.history_rows)),
      gauge("tsanomaly_workloads", "Distinct workloads in the history.", n(figures.workloads)),
      gauge("tsanomaly_history_counted_timestamp_seconds",
            "When the history's rows and workloads were last counted (every minute), in seconds since the epoch.",
            n(static_cast<long long>(figures.history_counted))),
      gauge("tsanomaly_calibrated_models", "Workloads with a calibrated clustering radius.", n(figures.models)),
      alert_family("tsanomaly_alerts_delivered", "Alerts delivered, by channel.", figures,
                   [](const ChannelFigures& c) { return static_cast<double>(c.delivered); }),
      alert_family("tsanomaly_alerts_failing", "Alerts waiting after a failed attempt, by channel.", figures,
                   [](const ChannelFigures& c) { return static_cast<double>(c.failing); }),
      alert_family("tsanomaly_alerts_given_up", "Alerts given up after the retry window, by channel.", figures,
                   [](const ChannelFigures& c) { return static_cast<double>(c.given_up); }),
      alert_family("tsanomaly_alert_oldest_undelivered_age_seconds",
                   "Age of the oldest alert not delivered yet, by channel; 0 when none waits.", figures,
                   [](const ChannelFigures& c) { return static_cast<double>(c.oldest_undelivered_age.value_or(0)); }),
      gauge("tsanomaly_newest_detection_timestamp_seconds",
            "When the newest anomaly was reported, in seconds since the epoch; 0 when there is none.",
            n(static_cast<long long>(figures.newest_detection))),
  };
  // A family without samples (no alert channel yet) is left out.
  std::erase_if(families, [](const MetricFamily& family) { return family.samples.empty(); });
  return families;
}
