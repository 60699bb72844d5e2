#include "console/TriagePages.h"

#include "report/HtmlEscape.h"
#include "console/UrlText.h"

namespace console_pages {
namespace {

std::string hidden(const char* name, const std::string& value) {
  return std::string("<input type=\"hidden\" name=\"") + name + "\" value=\"" + html_escape(value) + "\">";
}

std::string plural(std::size_t n) { return std::to_string(n) + (n == 1 ? " anomaly" : " anomalies"); }

// What the confirmation carries forward: the filter itself (its matches
// are read again when the verdict is given) or the ids one by one.
std::string chosen_fields(const TriageRequest& triage) {
  if (triage.whole_filter) return hidden("scope", "filter") + hidden_filter(triage.form);
  std::string out = hidden("scope", "ids");
  for (const std::string& id : triage.ids) out += hidden("id", id);
  return out;
}

std::string verdict_choice(const TriageRequest& triage) {
  const bool false_positive = triage.verdict == Verdict::false_positive;
  return std::string("<fieldset class=\"verdict\"><legend>Verdict</legend>") +
         "<label><input type=\"radio\" name=\"verdict\" value=\"acknowledge\"" + (false_positive ? "" : " checked") +
         "> Acknowledge: real anomalies, handled</label>"
         "<label><input type=\"radio\" name=\"verdict\" value=\"false-positive\"" + (false_positive ? " checked" : "") +
         "> Report as false positives: the next pass takes their jobs into the history</label></fieldset>";
}

}  // namespace

std::string triage_confirm_page(const TriageRequest& triage, const std::vector<std::string>& ids,
                                const std::string& csrf) {
  std::string body = "<p><a href=\"/\">\xE2\x86\x90 All anomalies</a></p>\n<header class=\"top\"><h1>Verdict for " +
                     plural(ids.size()) + "</h1><p class=\"meta\">";
  body += triage.whole_filter ? "Everything the filter matches now" : "The anomalies you selected";
  body += "; nothing changes until you confirm. Each anomaly keeps the rules of a single verdict: an anomaly with "
          "the other verdict, or a false positive whose job left the queue, is refused.</p></header>\n";
  if (ids.empty()) {
    body += "<div class=\"empty\"><strong>Nothing to do</strong>No anomaly is selected.</div>\n";
    return layout("Verdict", body);
  }
  body += "<form class=\"confirm\" method=\"post\" action=\"/triage/apply\">" + hidden("csrf", csrf) +
          chosen_fields(triage) + verdict_choice(triage) +
          "<label class=\"reason\">Reason (kept with the verdict)<textarea name=\"reason\" maxlength=\"" +
          std::to_string(kMaxReasonBytes) + "\">" + html_escape(triage.reason) + "</textarea></label>"
          "<button type=\"submit\" class=\"primary\" data-count=\"" + std::to_string(ids.size()) +
          "\">Give this verdict to " + plural(ids.size()) + "</button></form>\n";
  return layout("Verdict", body);
}

std::string triage_result_page(Verdict verdict, const std::vector<std::string>& ids,
                               const std::vector<VerdictOutcome>& outcomes) {
  std::size_t changed = 0, already = 0;
  for (const VerdictOutcome outcome : outcomes) {
    changed += outcome == VerdictOutcome::recorded ? 1 : 0;
    already += outcome == VerdictOutcome::already ? 1 : 0;
  }
  const std::string title = verdict == Verdict::acknowledged ? "Acknowledged" : "Reported as false positives";
  std::string body = "<p><a href=\"/\">\xE2\x86\x90 All anomalies</a></p>\n<header class=\"top\"><h1>" + title +
                     "</h1></header>\n<p class=\"result\" role=\"status\" data-changed=\"" + std::to_string(changed) +
                     "\">" + plural(outcomes.size()) + ": " + std::to_string(changed) + " changed, " +
                     std::to_string(already) + " already had this verdict, " +
                     std::to_string(outcomes.size() - changed - already) +
                     " refused.</p>\n<table class=\"results\"><thead><tr><th>Anomaly</th><th>Outcome</th></tr></thead>"
                     "<tbody>\n";
  for (std::size_t i = 0; i < outcomes.size() && i < kMaxResultRows; ++i) {
    body += "<tr data-outcome=\"" + std::string(outcome_slug(outcomes[i])) + "\"><td><a href=\"" +
            html_escape(anomaly_path(ids[i])) + "\"><code>" + html_escape(ids[i]) + "</code></a></td><td>" +
            html_escape(outcome_sentence(outcomes[i])) + "</td></tr>\n";
  }
  body += "</tbody></table>\n";
  if (outcomes.size() > kMaxResultRows) {
    body += "<p class=\"note\">The first " + std::to_string(kMaxResultRows) + " are listed.</p>\n";
  }
  return layout("Verdict given", body);
}

}  // namespace console_pages
