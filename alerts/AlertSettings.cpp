#include "alerts/AlertSettings.h"

#include <curl/curl.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "alerts/SecretFile.h"
#include "config/Configuration.h"
#include "platform/VisibleText.h"
#include "util/Text.h"

namespace {

constexpr int kConfigType = 1;  // the detector's table of defaults

struct NumberKey {
  const char* key;
  int fallback, min, max;
};

// Only a value in [min, max] is taken; anything else keeps the default and
// says so, since an operator's typo should not silently change behaviour.
int number(const Configuration& config, const std::string& section, const NumberKey& setting,
           std::vector<std::string>& warnings) {
  const std::string text = config.get_config(section, setting.key);
  if (text.empty()) return setting.fallback;
  const std::optional<long long> value = text::whole_number(text, setting.min, setting.max);
  if (!value) {
    warnings.push_back("[" + section + "] " + setting.key + "=" + visible_text(text) + " is not a whole number from " +
                       std::to_string(setting.min) + " to " + std::to_string(setting.max) + "; using " +
                       std::to_string(setting.fallback));
    return setting.fallback;
  }
  return static_cast<int>(*value);
}

bool section_present(const Configuration& config, const std::string& section) {
  std::map<std::string, std::set<std::string>> entries;
  config.get_config_dynamic_keys_multiple_values(section, entries);
  return !entries.empty();
}

bool has_control_character(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return true;
  }
  return false;
}

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// "" when url is an absolute http or https URL with a host. named is how
// messages call it: a URL read from a secret file is not shown in the log.
std::string url_problem(const std::string& url, const std::string& named) {
  if (url.empty()) return "URL is missing";
  if (has_control_character(url)) return "URL contains a control character";
  std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
  char* scheme = nullptr;
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
    return named + " is malformed";
  }
  const std::string lowered = text::to_lower(scheme);
  curl_free(scheme);
  if (lowered != "http" && lowered != "https") return named + " is not http or https";
  return "";
}

// The value of key, or the secret in the file its KEY_FILE names; error is
// set (when still empty) if both are given or the file is refused.
std::string secret(const Configuration& config, const std::string& section, const std::string& key,
                   std::string& error) {
  const std::string value = config.get_config(section, key);
  const std::string file = config.get_config(section, key + "_FILE");
  if (file.empty()) return value;
  const Secret read = value.empty() ? secret_file::read(key + "_FILE", file)
                                    : Secret{"", "set " + key + " or " + key + "_FILE, not both"};
  if (error.empty()) error = read.error;
  return read.text;
}

// Alertmanager's address is configured as its base ("http://am:9093") or as
// the endpoint itself; both reach the endpoint, so neither form is a trap.
std::string alertmanager_endpoint(std::string url) {
  static const std::string kEndpoint = "/api/v2/alerts";
  while (!url.empty() && url.back() == '/') url.pop_back();
  if (url.size() >= kEndpoint.size() && url.compare(url.size() - kEndpoint.size(), kEndpoint.size(), kEndpoint) == 0) {
    return url;
  }
  return url + kEndpoint;
}

std::optional<WebhookFormat> format_named(const std::string& name) {
  if (name.empty() || name == "json") return WebhookFormat::Json;
  if (name == "slack") return WebhookFormat::Slack;
  if (name == "alertmanager") return WebhookFormat::Alertmanager;
  return std::nullopt;
}

ChannelSettings webhook(const Configuration& config, std::vector<std::string>& warnings) {
  const std::string section = "ALERT_WEBHOOK";
  ChannelSettings channel;
  channel.kind = ChannelKind::webhook;
  channel.url = secret(config, section, "URL", channel.error);
  channel.authorization = secret(config, section, "AUTHORIZATION", channel.error);
  channel.timeout_seconds = number(config, section, {"TIMEOUT_SECONDS", 10, 1, 300}, warnings);
  const std::string format = text::to_lower(config.get_config(section, "FORMAT"));
  channel.format = format_named(format).value_or(WebhookFormat::Json);
  const bool url_is_secret = !config.get_config(section, "URL_FILE").empty();
  if (channel.error.empty()) {
    const std::string named = url_is_secret ? "URL from URL_FILE" : "URL '" + visible_text(channel.url) + "'";
    channel.error = url_problem(channel.url, named);
  }
  if (channel.error.empty() && !format_named(format)) {
    channel.error = "FORMAT '" + visible_text(format) + "' is unknown (json, slack or alertmanager)";
  }
  if (channel.format == WebhookFormat::Alertmanager) channel.url = alertmanager_endpoint(channel.url);
  if (channel.error.empty() && has_control_character(channel.authorization)) {
    channel.error = "AUTHORIZATION contains a control character";
  }
  return channel;
}

std::vector<std::string> split_blanks(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

ChannelSettings exec(const Configuration& config, std::vector<std::string>& warnings) {
  const std::string section = "ALERT_EXEC";
  ChannelSettings channel;
  channel.kind = ChannelKind::exec;
  channel.command = split_blanks(config.get_config(section, "COMMAND"));
  channel.timeout_seconds = number(config, section, {"TIMEOUT_SECONDS", 30, 1, 3600}, warnings);
  if (channel.command.empty()) {
    channel.error = "COMMAND is missing";
  } else if (channel.command[0][0] != '/') {
    channel.error = "COMMAND must start with the program's absolute path, not '" + visible_text(channel.command[0]) + "'";
  }
  return channel;
}

// Index in names, or -1.
int code_of(const std::string& name, std::initializer_list<const char*> names) {
  int code = 0;
  for (const char* candidate : names) {
    if (name == candidate) return code;
    ++code;
  }
  return -1;
}

int facility_code(const std::string& name) {
  const int local = code_of(name, {"local0", "local1", "local2", "local3", "local4", "local5", "local6", "local7"});
  if (local >= 0) return 16 + local;
  if (name == "user") return 1;
  if (name == "daemon") return 3;
  return -1;
}

ChannelSettings syslog(const Configuration& config) {
  const std::string section = "ALERT_SYSLOG";
  ChannelSettings channel;
  channel.kind = ChannelKind::syslog;
  const std::string facility = text::to_lower(config.get_config(section, "FACILITY"));
  const std::string priority = text::to_lower(config.get_config(section, "PRIORITY"));
  channel.socket_path = config.get_config(section, "SOCKET");
  if (channel.socket_path.empty()) channel.socket_path = "/dev/log";
  channel.facility = facility_code(facility.empty() ? "daemon" : facility);
  channel.severity = code_of(priority.empty() ? "warning" : priority,
                             {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"});
  if (channel.facility < 0) {
    channel.error = "FACILITY '" + visible_text(facility) + "' is unknown (user, daemon, local0 to local7)";
  } else if (channel.severity < 0) {
    channel.error = "PRIORITY '" + visible_text(priority) + "' is unknown (emerg, alert, crit, err, warning, notice, "
                    "info, debug)";
  } else if (channel.socket_path[0] != '/') {
    channel.error = "SOCKET must be an absolute path";
  }
  return channel;
}

}  // namespace

AlertSettings AlertSettings::read(const std::string& ini_path) {
  const Configuration config(ini_path, kConfigType);
  AlertSettings settings;
  settings.enabled = config.get_config("ANOMALY_DETECTION_FUNCTIONALITY", "DISABLE_ALERT_SERVICE") == "0";
  const std::string section = "ALERTS";
  settings.console_url = config.get_config(section, "CONSOLE_URL");
  while (!settings.console_url.empty() && settings.console_url.back() == '/') settings.console_url.pop_back();
  // The link ends up in texts people read: anything visible_text would have
  // to escape (controls, invisible format characters) makes it no link at all.
  if (visible_text(settings.console_url) != settings.console_url) {
    settings.warnings.push_back("[ALERTS] CONSOLE_URL contains a control or invisible character; alerts carry no link");
    settings.console_url.clear();
  }
  settings.since_hours = number(config, section, {"SINCE_HOURS", 24, 0, 87600}, settings.warnings);
  settings.group_threshold = number(config, section, {"GROUP_THRESHOLD", 10, 1, 100000}, settings.warnings);
  settings.interval_seconds = number(config, section, {"INTERVAL_SECONDS", 15, 1, 3600}, settings.warnings);
  settings.retry_seconds = number(config, section, {"RETRY_SECONDS", 60, 1, 3600}, settings.warnings);
  if (section_present(config, "ALERT_WEBHOOK")) settings.channels.push_back(webhook(config, settings.warnings));
  if (section_present(config, "ALERT_EXEC")) settings.channels.push_back(exec(config, settings.warnings));
  if (config.get_config("ALERT_SYSLOG", "ENABLED") == "1") settings.channels.push_back(syslog(config));
  return settings;
}
