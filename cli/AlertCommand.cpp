#include "cli/AlertCommand.h"

#include <curl/curl.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <string>

#include "platform/VisibleText.h"
#include "platform/StopSignal.h"
#include "platform/SystemdNotify.h"
#include "cli/CommandArgs.h"
#include "alerts/AlertChannel.h"
#include "alerts/AlertCycle.h"
#include "alerts/AlertLog.h"

const CommandArgs::Syntax kAlertSyntax{
    {{.name = "--config", .value_name = "INI", .help = "the configuration file (required)"},
     {.name = "--once", .help = "run one cycle, wait for every channel, and exit: 0, or 1 when DB could not be used"}},
    1,
    1,
    {"DB"}};

const std::string kAlertHelp =
    "usage: tsanomalyctl alert DB --config INI [--once]\n"
    "\n"
    "Sends an alert for every anomaly the detector reports into DB, through each\n"
    "channel configured in INI (sections ALERT_WEBHOOK, ALERT_EXEC, ALERT_SYSLOG\n"
    "and ALERTS; see the shipped tsanomalydetect.ini), while\n"
    "[ANOMALY_DETECTION_FUNCTIONALITY] DISABLE_ALERT_SERVICE is 0. INI is read\n"
    "again at every cycle (every INTERVAL_SECONDS), so edits need no restart.\n"
    "\n"
    "Each anomaly is alerted once per channel; what was delivered, what failed\n"
    "and when to try again is kept in DB (tables ALERT_CHANNEL, ALERT_DELIVERY,\n"
    "ALERT_FIRING, created when missing). A failed alert is tried again with\n"
    "growing delays for 24 hours, then given up. An anomaly reported as a false\n"
    "positive or acknowledged before its alert went out is not alerted; with\n"
    "FORMAT=alertmanager, one judged after is resolved in Alertmanager. Each\n"
    "channel delivers on its own: a slow receiver holds up only its channel.\n"
    "Runs until SIGTERM or SIGINT; logs to standard error.\n"
    "\n" +
    options_help(kAlertSyntax.options);

const CommandArgs::Syntax kAlertTestSyntax{{{.name = "--config", .value_name = "INI", .help = "the configuration file"}}, 0, 0};

const std::string kAlertTestHelp =
    "usage: tsanomalyctl alert-test --config INI\n"
    "\n"
    "Sends one test alert (no anomaly) through every channel configured in INI\n"
    "and prints each channel's result, to check the set-up. It works whatever\n"
    "DISABLE_ALERT_SERVICE says and touches no database. Exit status 0 when\n"
    "every configured channel took the alert, 1 otherwise.\n"
    "\n" +
    options_help(kAlertTestSyntax.options);

namespace {

std::optional<std::string> config_path(const CommandArgs& args, const char* command, std::optional<int>& exit_code) {
  const auto path = args.value("--config");
  if (!path || path->empty()) exit_code = CommandArgs::usage_error(command, "--config INI is required");
  return path;
}

// Sleeps until the next cycle is due, waking at once on a stop request.
void wait_for_next_cycle(int seconds) {
  for (int i = 0; i < seconds * 10 && !StopSignal::requested(); ++i) usleep(100000);
}

std::string padded(const std::string& name) { return name + std::string(name.size() < 10 ? 10 - name.size() : 1, ' '); }

}  // namespace

int run_alert(int argc, char** argv) {
  CommandArgs args(argc, argv, kAlertSyntax);
  if (auto exit_code = args.help_or_usage_error("alert", kAlertHelp)) return *exit_code;
  std::optional<int> exit_code;
  const auto config = config_path(args, "alert", exit_code);
  if (exit_code) return *exit_code;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  StopSignal::install();
  AlertCycle cycle(args.positional()[0], *config);
  if (args.flag("--once")) {
    cycle.run(std::time(nullptr));
    cycle.wait();
    return cycle.ok() ? 0 : 1;
  }
  alert_log::info("started for " + args.positional()[0] + " with " + *config);
  SystemdNotify::ready("sending alerts");
  while (!StopSignal::requested()) {
    const AlertSettings settings = cycle.run(std::time(nullptr));
    wait_for_next_cycle(settings.interval_seconds);
  }
  SystemdNotify::stopping();
  // A send in flight ends within its channel's time limit.
  cycle.wait();
  alert_log::info("stopped");
  return 0;
}

int run_alert_test(int argc, char** argv) {
  CommandArgs args(argc, argv, kAlertTestSyntax);
  if (auto exit_code = args.help_or_usage_error("alert-test", kAlertTestHelp)) return *exit_code;
  std::optional<int> exit_code;
  const auto config = config_path(args, "alert-test", exit_code);
  if (exit_code) return *exit_code;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const AlertSettings settings = AlertSettings::read(*config);
  for (const std::string& warning : settings.warnings) std::cout << "warning   " << warning << "\n";
  if (settings.channels.empty()) {
    std::cout << "No alert channel is configured in " << visible_text(*config)
              << " ([ALERT_WEBHOOK], [ALERT_EXEC], or [ALERT_SYSLOG] with ENABLED=1).\n";
    return 1;
  }
  const AlertMessage message = AlertMessage::test(settings.console_url, std::time(nullptr));
  bool all_delivered = true;
  for (const ChannelSettings& channel : settings.channels) {
    std::cout << padded(channel.name());
    if (!channel.usable()) {
      std::cout << "configuration error: " << channel.error << "\n";
      all_delivered = false;
      continue;
    }
    const SendResult result = AlertChannel::make(channel)->send(message);
    std::cout << (result.delivered ? "delivered" : "FAILED: " + result.error) << "\n";
    all_delivered = all_delivered && result.delivered;
  }
  if (!settings.enabled) {
    std::cout << "Note: alerts are off; the alert process sends nothing until [ANOMALY_DETECTION_FUNCTIONALITY] "
                 "DISABLE_ALERT_SERVICE=0.\n";
  }
  return all_delivered ? 0 : 1;
}
