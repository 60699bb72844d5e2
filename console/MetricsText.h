// MetricsText: metric families in the Prometheus text exposition format
// (HELP and TYPE lines, then one sample per line). A family is data, so a
// new figure is one more entry in the list that /metrics renders. Label
// values and help texts are escaped as the format requires.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct MetricSample {
  std::vector<std::pair<std::string, std::string>> labels;  // name, value
  double value = 0;
};

struct MetricFamily {
  std::string name;  // tsanomaly_..., [a-zA-Z_:][a-zA-Z0-9_:]*
  std::string help;
  std::string type;  // "gauge", "counter"
  std::vector<MetricSample> samples;
};

std::string metrics_text(const std::vector<MetricFamily>& families);
