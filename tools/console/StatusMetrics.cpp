#include "tools/console/StatusMetrics.h"

namespace {

MetricFamily gauge(const char* name, const char* help, double value) {
  return {name, help, "gauge", {{{}, value}}};
}

}  // namespace

std::vector<MetricFamily> status_metrics(const StatusFigures& figures) {
  MetricFamily by_state{"tsanomaly_anomalies", "Reported anomalies by state.", "gauge", {}};
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    by_state.samples.push_back(
        {{{"state", info.slug}}, static_cast<double>(figures.by_state[static_cast<int>(info.state)])});
  }
  const auto n = [](long long v) { return static_cast<double>(v); };
  return {
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
      gauge("tsanomaly_newest_detection_timestamp_seconds",
            "When the newest anomaly was reported, in seconds since the epoch; 0 when there is none.",
            n(static_cast<long long>(figures.newest_detection))),
  };
}
