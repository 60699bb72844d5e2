#include "cli/FeedbackCommand.h"

#include <iostream>
#include <string>

#include "cli/CommandArgs.h"
#include "platform/VisibleText.h"
#include "operator/ErrorText.h"
#include "operator/Verdict.h"

const CommandArgs::Syntax kFeedbackSyntax{{}, 2, 2, {"DB", "ANOMALY_ID"}};

const std::string kFeedbackHelp =
    "usage: tsanomalyctl feedback DB ANOMALY_ID\n"
    "\n"
    "Reports the anomaly ANOMALY_ID (as listed by 'tsanomalyctl anomalies') as a\n"
    "false positive. At its next pass the detector adds the job to the history as\n"
    "a confirmed normal job, and later jobs like it are no longer reported.\n"
    "\n"
    "Refused (exit 1) for an anomaly acknowledged as real, for one whose job\n"
    "has left the detection queue, since no pass could learn it any more, and\n"
    "while a trigger or view the detector's schema does not define sits on its\n"
    "tables ('tsanomalyctl upgrade DB' lists them), since writing could run it.\n";

int run_feedback(int argc, char** argv) {
  CommandArgs args(argc, argv, kFeedbackSyntax);
  if (auto exit_code = args.help_or_usage_error("feedback", kFeedbackHelp)) return *exit_code;
  const std::string path = args.positional()[0];
  const std::string id = args.positional()[1];
  // The id may be pasted from anywhere: it is echoed with visible escapes.
  const std::string shown_id = visible_text(id);
  const std::string shown_path = visible_text(path);
  VerdictOutcome outcome = VerdictOutcome::unknown;
  try {
    outcome = give_verdict(path, id, Verdict::false_positive);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl feedback: " << ErrorText::of(e) << "\n";
    return 1;
  }
  switch (outcome) {
    case VerdictOutcome::unknown:
      std::cerr << "tsanomalyctl feedback: no anomaly '" << shown_id << "' in " << shown_path
                << " (see 'tsanomalyctl anomalies " << shown_path << "')\n";
      return 1;
    case VerdictOutcome::conflict:
    case VerdictOutcome::job_gone:
    case VerdictOutcome::foreign_code:
      std::cerr << "tsanomalyctl feedback: anomaly " << shown_id << " not reported as a false positive: "
                << verdict_refusal(outcome) << "\n";
      return 1;
    case VerdictOutcome::already:
      std::cout << "Anomaly " << shown_id << " is already reported as a false positive.\n";
      return 0;
    case VerdictOutcome::recorded:
      break;
  }
  std::cout << "Anomaly " << shown_id << " reported as a false positive; the next detection pass takes the job into the "
               "history.\n";
  return 0;
}
