// AlertmanagerAlert: an anomaly as one element of the list Alertmanager's
// POST /api/v2/alerts takes. Its labels are fixed names whose values are
// the anomaly's bounded, visible texts as JSON strings, so no database text
// can add a label; the same anomaly always gets the same labels, which is
// how a later post of it with endsAt = now resolves that very alert.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "alerts/AlertMessage.h"
#include "util/Json.h"

namespace alertmanager {

// The alertname label of every anomaly's alert, and of alert-test's.
inline constexpr const char* kAlertName = "BackupJobAnomaly";
inline constexpr const char* kTestAlertName = "BackupJobAnomalyAlertTest";

// The score is the job's distance to its nearest cluster in standard
// deviations: from kWarningScore on it is "warning", from kCriticalScore on
// "critical", below "info". An unreadable score is "warning": not knowing is
// no reason to play an anomaly down.
inline constexpr double kWarningScore = 5;
inline constexpr double kCriticalScore = 10;
const char* severity(std::optional<double> score);

// An anomaly nobody judges stops firing this long after its detection, so
// Alertmanager does not hold it forever; a verdict ends it sooner.
inline constexpr time_t kActiveSeconds = 7 * 24 * 3600;

// The element for one anomaly: startsAt its detection, endsAt
// kActiveSeconds later; summary is the one-line text of the other formats.
Json anomaly_alert(const AnomalyAlert& alert, const std::string& summary);
// alert-test's element: firing from now for five minutes, then gone.
Json test_alert(const std::string& summary, const std::string& link, time_t now);
// An element as anomaly_alert() wrote it, now ending at ends_at; empty when
// the text is not such an element.
Json ended(const std::string& element, time_t ends_at);

}  // namespace alertmanager
