// anomaly_stat: one feature's verdict for an anomalous job, in the feature's
// raw unit: the job's value and the range the nearest cluster's members span.
#pragma once

struct anomaly_stat {
  double current_value = 0.0;
  double usual_min = 0.0;
  double usual_max = 0.0;
};
