// anomaly_stat: one feature's verdict for an anomalous job, in the feature's
// raw unit: the job's value and the range the nearest cluster's members span.
// AnomalyStats holds the verdicts of the features that left their range,
// keyed by column name.
#pragma once

#include <map>
#include <string>

struct anomaly_stat {
  double current_value = 0.0;
  double usual_min = 0.0;
  double usual_max = 0.0;
};

using AnomalyStats = std::map<std::string, anomaly_stat>;
