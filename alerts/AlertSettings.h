// AlertSettings: the alert process's configuration, read from the detector's
// INI file afresh at each cycle. Reading never throws: a channel whose
// section is wrong carries its problem in `error` and is left out of
// delivery, so one bad section never stops the others; a malformed number
// falls back to its default and is listed in `warnings`.
#pragma once

#include <string>
#include <vector>

enum class WebhookFormat { Json, Slack, Alertmanager };

// The kinds of channel; each has one section and one name, the key of its
// delivery rows.
enum class ChannelKind { webhook, exec, syslog };

struct ChannelSettings {
  ChannelKind kind = ChannelKind::webhook;
  // "webhook", "exec" or "syslog"
  std::string name() const {
    switch (kind) {
      case ChannelKind::webhook: return "webhook";
      case ChannelKind::exec: return "exec";
      case ChannelKind::syslog: break;
    }
    return "syslog";
  }
  std::string error;  // empty when the section can be used
  int timeout_seconds = 0;
  // webhook; for Alertmanager, its POST /api/v2/alerts endpoint whatever
  // form of its address was configured
  std::string url;
  std::string authorization;
  WebhookFormat format = WebhookFormat::Json;
  // exec: the program (an absolute path) and its arguments, split on blanks
  std::vector<std::string> command;
  // syslog
  int facility = 0;  // the facility code (3 for daemon), not yet shifted
  int severity = 0;
  std::string socket_path;

  bool usable() const { return error.empty(); }
};

struct AlertSettings {
  bool enabled = false;  // DISABLE_ALERT_SERVICE is "0"
  std::string console_url;  // without a trailing '/'; empty: alerts carry no link
  int since_hours = 24;
  int group_threshold = 10;
  int interval_seconds = 15;
  int retry_seconds = 60;
  // The configured channels, usable or not, in the order webhook, exec, syslog.
  std::vector<ChannelSettings> channels;
  std::vector<std::string> warnings;

  static AlertSettings read(const std::string& ini_path);
};
