// UrlText: text made safe for a URL path segment or query value, and the
// console's one spelling of an anomaly's address. Other programs (alert
// messages) link to CONSOLE_URL + kAnomalyPathPrefix + the id's handle, so
// the prefix is part of the console's interface.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::string_view kAnomalyPathPrefix = "/anomalies/";

// Every byte but the unreserved ones (letters, digits, "-._~") as %XX.
std::string percent_encode(std::string_view text);

// "/anomalies/<the id's handle (operator/AnomalyHandle), percent-encoded>":
// bounded and routable whatever the id holds.
std::string anomaly_path(std::string_view id);

// "/workloads?anomaly=<id, percent-encoded>": the page of the workload the
// anomaly's job belongs to.
std::string workload_path_of(std::string_view anomaly_id);
