// StatusMetrics: the console's /metrics families, made from the status
// figures: queue, history, models, anomalies by state and the newest
// detection. Another figure is one more family in the list.
#pragma once

#include <vector>

#include "console/ConsoleStore.h"
#include "console/MetricsText.h"

std::vector<MetricFamily> status_metrics(const StatusFigures& figures);
