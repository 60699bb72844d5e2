// TriagePages: the pages of a verdict given to many anomalies at once: the
// confirmation that counts what the operator chose before anything changes
// (with the verdict to choose and a reason to give), and the result, per
// anomaly what changed and what was refused. Every text is escaped.
#pragma once

#include <string>
#include <vector>

#include "console/TriageRequest.h"

namespace console_pages {

// ids: what the request selects now; its count is what the button says.
std::string triage_confirm_page(const TriageRequest& triage, const std::vector<std::string>& ids,
                                const std::string& csrf);

// At most kMaxResultRows anomalies are listed one by one; the counts cover all.
inline constexpr std::size_t kMaxResultRows = 1000;
std::string triage_result_page(Verdict verdict, const std::vector<std::string>& ids,
                               const std::vector<VerdictOutcome>& outcomes);

}  // namespace console_pages
