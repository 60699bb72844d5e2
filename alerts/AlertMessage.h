// AlertMessage: what an alert says about one anomaly, or about many at once,
// in each form a channel sends: a one-line text (syslog, the first line
// everywhere), a multi-line text (chat tools, mail scripts), our JSON
// document (webhooks, scripts) and Alertmanager's alerts. Everything taken from the database is
// repaired to UTF-8, stripped of control characters in texts and cut to a
// bounded length, so a hostile payload cannot forge lines or grow a
// message without limit. Building never throws on odd payloads.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "contract/Features.h"

// One feature that left its usual range, with its numbers as the payload
// wrote them (sizes in MB).
struct AlertFeature {
  const FeatureInfo* info = nullptr;
  std::string value, usual_min, usual_max;  // texts without unit
  double current = 0, low = 0, high = 0;
  // How far outside the range, relative to the edge it crossed; none when
  // that edge is 0.
  std::optional<double> change_percent;
};

// One anomaly as an alert tells it.
struct AnomalyAlert {
  std::string id, client, policy, policy_type, schedule, storage, score, summary;
  time_t detection_time = 0;
  std::vector<AlertFeature> features;  // the most changed first
  std::string link;                    // the console page, or empty

  // The score as a finite number; none when the payload's is not one.
  std::optional<double> score_number() const;

  // From an ANOMALY_DATA row; console_url empty gives no link.
  static AnomalyAlert from_row(const std::string& id, const std::string& client, time_t detection_time,
                               const std::string& payload, const std::string& console_url);
};

// One message ready for the channels. `key` names it for receivers that
// drop repeats (the anomaly id, or the ids of a summary joined).
struct AlertMessage {
  std::string key;
  std::string line;  // one line, no control characters
  std::string text;  // line first, then details, '\n'-separated
  std::string json;  // our document
  // One element of Alertmanager's POST /api/v2/alerts list per anomaly, as
  // JSON text each, in the order of the anomalies.
  std::vector<std::string> alertmanager;

  static AlertMessage for_anomaly(const AnomalyAlert& alert);
  // One message listing many anomalies (a flood of new ones in one cycle).
  static AlertMessage summary(const std::vector<AnomalyAlert>& alerts);
  // The message `tsanomalyctl alert-test` sends.
  static AlertMessage test(const std::string& console_url, time_t now);
  // Alertmanager's alerts given (as alertmanager held them), ending at now:
  // posting them resolves them. For Alertmanager only: json is empty.
  static AlertMessage resolved(const std::vector<std::string>& alerts, time_t now);
};

// "console_url/anomalies/<the id's handle (operator/AnomalyHandle) percent-encoded>".
std::string console_link(const std::string& console_url, const std::string& id);
