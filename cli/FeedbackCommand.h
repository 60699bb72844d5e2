// tsanomalyctl feedback: records an operator's "false positive" verdict on a
// reported anomaly; the next detection pass moves the job into the history.
#pragma once

#include <string>

#include "cli/CommandArgs.h"

extern const CommandArgs::Syntax kFeedbackSyntax;
extern const std::string kFeedbackHelp;
int run_feedback(int argc, char** argv);
