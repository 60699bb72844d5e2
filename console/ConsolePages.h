// ConsolePages: the console's HTML pages, rendered on the server: the
// anomaly list with its filters and tiles, one anomaly with its charts and
// verdict forms, the status page, and a message page for errors. Pages fetch
// nothing but the console's own stylesheet and script; every text
// from the database or a request is escaped for where it lands.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "console/ConsoleStore.h"

namespace console_pages {

// The list's filter as the operator typed it, to show it back in the form
// and to carry it into the paging links.
struct FilterForm {
  std::string client, policy, from, to, state;
};

struct ListView {
  FilterForm form;
  std::string csrf;  // the session's, for the triage form
  std::vector<ListedAnomaly> rows;
  ListTotals totals;
  long long page = 1;  // 1-based
  bool has_more = false;
};

std::string list_page(const ListView& view);

// result: a sentence on what the last action did, shown above the card.
// why: the panel "Why this was flagged" (see WhyFlagged), placed after the card.
std::string anomaly_page(const AnomalyDetail& detail, const std::string& why, const std::string& csrf,
                         const std::string& result, time_t now);

std::string status_page(const StatusFigures& figures, const std::vector<std::pair<std::string, long long>>& per_day,
                        time_t now);

std::string message_page(const std::string& title, const std::string& text);

// Sign-in needed: the message and a form that sends the token to action
// with fields, the parameters of the page asked for.
std::string sign_in_page(const std::string& text, const std::string& action,
                         const std::vector<std::pair<std::string, std::string>>& fields);

// Thirty bars of anomalies, one per local day ending today (per_day: the
// day's date text and its count).
std::string days_chart(const std::vector<std::pair<std::string, long long>>& per_day, time_t now);

// The console's frame around a page's body: head, stylesheet, navigation.
std::string layout(const std::string& title, const std::string& body);
// The filter's fields as hidden inputs, to carry it through a form.
std::string hidden_filter(const FilterForm& form);

// /console.css: the report's styles and the console's own.
std::string stylesheet();

}  // namespace console_pages
