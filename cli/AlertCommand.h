// tsanomalyctl alert: the alert process. Sends alerts for the anomalies the
// detector reports, through the channels configured in the INI file, while
// DISABLE_ALERT_SERVICE is 0; runs until SIGTERM, or one cycle with --once.
// tsanomalyctl alert-test: one test alert through every configured channel.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kAlertSyntax;
extern const CommandArgs::Syntax kAlertTestSyntax;
extern const std::string kAlertHelp;
extern const std::string kAlertTestHelp;

// Exit status 0; with --once 1 when the database could not be used; 2 for
// bad arguments.
int run_alert(int argc, char** argv);
// Exit status 0 when every configured channel took the test alert, 1 when
// one did not or none is configured, 2 for bad arguments.
int run_alert_test(int argc, char** argv);
