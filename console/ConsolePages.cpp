#include "console/ConsolePages.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "platform/LocalTime.h"
#include "report/HtmlEscape.h"
#include "report/HtmlReport.h"
#include "console/UrlText.h"

namespace console_pages {
namespace {

const char* const kConsoleStyle = R"(
nav.top { display: flex; gap: 18px; align-items: baseline; flex-wrap: wrap; margin-bottom: 6px; }
nav.top .brand { font-weight: 650; font-size: 18px; color: #1f2933; text-decoration: none; }
nav.top a { color: #1a5fb4; }
form.filters { display: flex; flex-wrap: wrap; gap: 10px 14px; align-items: flex-end; background: #fff;
  border: 1px solid #e1e6ec; border-radius: 10px; padding: 12px 16px; margin: 16px 0 4px; }
form.filters label { display: flex; flex-direction: column; font-size: 11.5px; color: #5b6573;
  text-transform: uppercase; letter-spacing: 0.05em; }
form.filters input, form.filters select { font: inherit; padding: 5px 8px; border: 1px solid #c9d1db;
  border-radius: 6px; min-width: 0; }
button { font: inherit; padding: 6px 14px; border-radius: 6px; border: 1px solid #1a5fb4; background: #1a5fb4;
  color: #fff; cursor: pointer; }
button.secondary { background: #fff; color: #1a5fb4; }
table.anomalies { width: 100%; border-collapse: collapse; background: #fff; border: 1px solid #e1e6ec;
  border-radius: 10px; overflow: hidden; margin-top: 12px; }
table.anomalies th, table.anomalies td { text-align: left; padding: 8px 10px; border-bottom: 1px solid #eef1f4;
  vertical-align: top; overflow-wrap: anywhere; }
table.anomalies th { font-size: 11.5px; text-transform: uppercase; letter-spacing: 0.05em; color: #5b6573;
  white-space: nowrap; overflow-wrap: normal; }
table.anomalies td.score { white-space: nowrap; font-variant-numeric: tabular-nums; }
.visually-hidden { position: absolute; width: 1px; height: 1px; overflow: hidden; clip: rect(0 0 0 0);
  white-space: nowrap; }
form.triage { display: flex; flex-wrap: wrap; gap: 8px 10px; align-items: center; margin: 14px 0 0; }
form.triage .triage-label { color: #5b6573; }
td.pick input { width: 20px; height: 20px; margin: 0; }
:focus-visible { outline: 3px solid #f5a623; outline-offset: 2px; }
fieldset.verdict { border: 1px solid #e1e6ec; border-radius: 10px; background: #fff; padding: 10px 16px; margin: 12px 0; }
fieldset.verdict label { display: block; margin: 6px 0; }
label.reason { display: block; margin: 12px 0; }
label.reason textarea { display: block; width: 100%; max-width: 640px; min-height: 80px; font: inherit; }
table.results { width: 100%; border-collapse: collapse; background: #fff; margin-top: 12px; }
table.results td, table.results th { text-align: left; padding: 6px 10px; border-bottom: 1px solid #eef1f4;
  overflow-wrap: anywhere; }
.state { display: inline-block; border-radius: 999px; padding: 1px 10px; font-size: 12.5px; white-space: nowrap; }
.state-open { background: #fdecea; color: #8a1c14; }
.state-false-positive-waiting { background: #fff4e5; color: #8a4b00; }
.state-false-positive-learned { background: #e6f4ea; color: #1e6b3a; }
.state-acknowledged { background: #e8ecf1; color: #3d4752; }
circle.mark-open { fill: #d93025; } circle.mark-acknowledged { fill: #5b6573; }
circle.mark-false-positive-waiting { fill: #f29900; } circle.mark-false-positive-learned { fill: #1e8e3e; }
.legend span[class^="m-"]::before { width: 10px; height: 10px; border-radius: 50%; }
.legend .m-open::before { background: #d93025; } .legend .m-acknowledged::before { background: #5b6573; }
.legend .m-false-positive-waiting::before { background: #f29900; }
.legend .m-false-positive-learned::before { background: #1e8e3e; }
section.why { background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; padding: 14px 18px; margin: 16px 0; }
section.why h2 { margin: 0 0 6px; font-size: 18px; }
table.readings { border-collapse: collapse; width: 100%; margin: 8px 0; }
table.readings td, table.readings th { text-align: left; padding: 4px 8px; border-bottom: 1px solid #eef1f4;
  overflow-wrap: anywhere; }
ol.rules li { margin: 4px 0; }
.pager { display: flex; justify-content: space-between; margin: 12px 0; }
.actions { display: flex; gap: 12px; flex-wrap: wrap; margin: 12px 0 16px; }
.result { background: #e6f4ea; border: 1px solid #b7dfc3; border-radius: 8px; padding: 9px 12px; margin: 12px 0; }
dl.figures { display: grid; grid-template-columns: repeat(auto-fit, minmax(200px, 1fr)); gap: 12px; margin: 16px 0; }
dl.figures div { background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; padding: 12px 16px; }
dl.figures dt { font-size: 11.5px; text-transform: uppercase; letter-spacing: 0.05em; color: #5b6573; }
dl.figures dd { margin: 2px 0 0; font-size: 24px; font-weight: 650; font-variant-numeric: tabular-nums; }
svg.days { width: 100%; height: auto; background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; }
@media (max-width: 640px) {
  .page { padding: 16px 10px 32px; }
  table.anomalies, table.anomalies tbody, table.anomalies tr, table.anomalies td { display: block; width: 100%; }
  table.anomalies thead { display: none; }
  table.anomalies { border: 0; background: none; }
  table.anomalies tr { background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; margin: 0 0 10px;
    padding: 6px 4px; }
  table.anomalies td { border: 0; padding: 3px 10px; }
  table.anomalies td[data-label]::before { content: attr(data-label); display: block; font-size: 11px;
    color: #5b6573; text-transform: uppercase; letter-spacing: 0.05em; }
  .features { grid-template-columns: minmax(0, 1fr); }
  table.results, table.results tbody, table.results tr, table.results td { display: block; }
  table.alerts { display: block; overflow-x: auto; }
}
)";

std::string attr(const std::string& text) { return html_escape(text); }

}  // namespace

std::string layout(const std::string& title, const std::string& body) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<title>" + html_escape(title) + " \xE2\x80\x93 tsanomaly console</title>\n"
         "<link rel=\"stylesheet\" href=\"/console.css\">\n<script src=\"/console.js\"></script>\n</head>\n"
         "<body>\n<div class=\"page\">\n"
         "<nav class=\"top\"><a class=\"brand\" href=\"/\">Backup anomalies</a><a href=\"/\">Anomalies</a>"
         "<a href=\"/status\">Status</a>"
         "<form class=\"sign-out\" method=\"post\" action=\"/logout\"><button type=\"submit\">Sign out</button></form>"
         "</nav>\n" +
         body + "</div>\n</body>\n</html>\n";
}

namespace {

std::string state_badge(AnomalyState state) {
  const AnomalyStateInfo& info = state_info(state);
  return std::string("<span class=\"state state-") + info.slug + "\">" + info.label + "</span>";
}

std::string tile(const std::string& kind, const std::string& label, long long value) {
  return "<div class=\"tile " + kind + "\"><div class=\"label\">" + label + "</div><div class=\"value\">" +
         std::to_string(value) + "</div></div>\n";
}

std::string input(const char* name, const char* label, const char* type, const std::string& value) {
  return std::string("<label>") + label + "<input type=\"" + type + "\" name=\"" + name + "\" value=\"" +
         attr(value) + "\"></label>";
}

std::string filter_form(const FilterForm& form) {
  std::string out = "<form class=\"filters\" method=\"get\" action=\"/\">";
  out += input("client", "Client", "text", form.client);
  out += input("policy", "Policy", "text", form.policy);
  out += input("from", "From", "date", form.from);
  out += input("to", "To", "date", form.to);
  out += "<label>State<select name=\"state\"><option value=\"\">any</option>";
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    out += std::string("<option value=\"") + info.slug + "\"" + (form.state == info.slug ? " selected" : "") + ">" +
           info.label + "</option>";
  }
  out += "</select></label><button type=\"submit\">Filter</button></form>\n";
  return out;
}

// The filter as a query string, for links that keep it.
std::string filter_query(const FilterForm& form) {
  return "client=" + percent_encode(form.client) + "&policy=" + percent_encode(form.policy) +
         "&from=" + percent_encode(form.from) + "&to=" + percent_encode(form.to) +
         "&state=" + percent_encode(form.state);
}

std::string page_link(const FilterForm& form, long long page, const char* text) {
  const std::string query = filter_query(form) + "&page=" + std::to_string(page);
  return "<a rel=\"" + std::string(page > 1 ? "next" : "prev") + "\" href=\"/?" + attr(query) + "\">" + text + "</a>";
}

std::string or_dash(const std::string& text) { return text.empty() ? "\xE2\x80\x94" : html_escape(text); }

// One anomaly of the list; on a narrow screen each cell shows its
// column's name (data-label), since the row becomes a card.
std::string anomaly_row(const ListedAnomaly& row) {
  const std::string when = html_escape(local_time_text(row.detection_time));
  return "<tr data-anomaly-id=\"" + attr(row.id) + "\"><td class=\"pick\"><input type=\"checkbox\" form=\"triage\" "
         "name=\"id\" value=\"" + attr(row.id) + "\" aria-label=\"Select the anomaly of " + attr(row.client) +
         " detected " + when + "\"></td><td data-label=\"Detected\"><a class=\"anomaly-link\" href=\"" +
         attr(anomaly_path(row.id)) + "\">" + when + "</a></td><td class=\"client\" data-label=\"Client\">" +
         or_dash(row.client) + "</td><td data-label=\"Policy\"><a class=\"workload-link\" href=\"" +
         attr(workload_path_of(row.id)) + "\" title=\"The workload's history\">" + or_dash(row.policy) +
         "</a></td><td data-label=\"Out of range\">" + or_dash(row.summary) + "</td><td class=\"score\" "
         "data-label=\"Score\">" + or_dash(row.score) + "</td><td data-label=\"State\">" + state_badge(row.state) +
         "</td></tr>\n";
}

// The list's triage form: the rows' boxes belong to it (form="triage"), and
// its three buttons choose the anomalies the confirmation page counts.
std::string triage_form(const ListView& view) {
  std::string out = "<form id=\"triage\" class=\"triage\" method=\"post\" action=\"/triage\">"
                    "<input type=\"hidden\" name=\"csrf\" value=\"" + attr(view.csrf) + "\">" +
                    hidden_filter(view.form);
  for (const ListedAnomaly& row : view.rows) {
    out += "<input type=\"hidden\" name=\"page_id\" value=\"" + attr(row.id) + "\">";
  }
  out += "<span class=\"triage-label\">Give a verdict to</span>"
         "<button type=\"submit\" class=\"secondary\" name=\"scope\" value=\"ids\">the selected\xE2\x80\xA6</button>"
         "<button type=\"submit\" class=\"secondary\" name=\"scope\" value=\"page\">the " +
         std::to_string(view.rows.size()) + " on this page\xE2\x80\xA6</button>"
         "<button type=\"submit\" class=\"secondary\" name=\"scope\" value=\"filter\">all " +
         std::to_string(view.totals.anomalies) + " the filter matches\xE2\x80\xA6</button></form>\n";
  return out;
}

// A verdict form: a POST to the anomaly's own action URL with the session's
// CSRF token.
std::string action_form(const std::string& id, const char* action, const char* label, const std::string& csrf,
                        bool primary) {
  return "<form method=\"post\" action=\"" + attr(anomaly_path(id) + "/" + action) +
         "\"><input type=\"hidden\" name=\"csrf\" value=\"" + attr(csrf) + "\"><button type=\"submit\" class=\"" +
         (primary ? "primary" : "secondary") + "\" name=\"action\" value=\"" + action + "\" aria-label=\"" + label +
         ": anomaly " + attr(id) + "\">" + label + "</button></form>";
}

}  // namespace

std::string days_chart(const std::vector<std::pair<std::string, long long>>& per_day, time_t now) {
  constexpr int kDays = 30;
  const std::map<std::string, long long> counts(per_day.begin(), per_day.end());
  long long highest = 1;
  for (const auto& [day, n] : per_day) highest = std::max(highest, n);
  std::string bars;
  for (int i = 0; i < kDays; ++i) {
    const std::string day = local_time_text(now - static_cast<time_t>(kDays - 1 - i) * 86400).substr(0, 10);
    const auto found = counts.find(day);
    const long long n = found == counts.end() ? 0 : found->second;
    const double height = 100.0 * static_cast<double>(n) / static_cast<double>(highest);
    char rect[256];
    std::snprintf(rect, sizeof rect,
                  "<rect class=\"day\" x=\"%d\" y=\"%.1f\" width=\"16\" height=\"%.1f\" fill=\"#d93025\">", 10 + i * 20,
                  110 - height, height);
    bars += rect + std::string("<title>") + html_escape(day) + ": " + std::to_string(n) + "</title></rect>";
  }
  return "<svg class=\"days\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 620 130\" role=\"img\" "
         "aria-label=\"Anomalies per day, last 30 days\"><line x1=\"6\" y1=\"110.5\" x2=\"614\" y2=\"110.5\" "
         "stroke=\"#c9d1db\"/>" + bars + "<text x=\"10\" y=\"126\" font-size=\"11\" fill=\"#5b6573\">30 days ago"
         "</text><text x=\"610\" y=\"126\" font-size=\"11\" fill=\"#5b6573\" text-anchor=\"end\">today</text>"
         "<text x=\"10\" y=\"12\" font-size=\"11\" fill=\"#5b6573\">max " + std::to_string(highest) + "</text></svg>";
}

std::string list_page(const ListView& view) {
  std::string body = "<header class=\"top\"><h1>Anomalies</h1><p class=\"meta\">Newest first. Open one to see its "
                     "charts and give a verdict.</p></header>\n";
  body += filter_form(view.form);
  body += "<section class=\"summary\">\n";
  body += tile("total", "Anomalies", view.totals.anomalies);
  body += tile("clients", "Clients affected", view.totals.clients);
  body += tile("day", "Last 24 hours", view.totals.last_day);
  body += tile("week", "Last 7 days", view.totals.last_week);
  body += "</section>\n";
  if (view.rows.empty()) {
    body += "<div class=\"empty\"><strong>No anomalies</strong>Nothing matches this filter.</div>\n";
  } else {
    body += triage_form(view);
    body += "<table class=\"anomalies\"><thead><tr><th><span class=\"visually-hidden\">Select</span></th>"
            "<th>Detected</th><th>Client</th><th>Policy</th><th>Out of range</th><th>Score</th><th>State</th></tr>"
            "</thead><tbody>\n";
    for (const ListedAnomaly& row : view.rows) body += anomaly_row(row);
    body += "</tbody></table>\n";
  }
  body += "<div class=\"pager\"><span>";
  if (view.page > 1) body += page_link(view.form, view.page - 1, "\xE2\x86\x90 Newer");
  body += "</span><span>Page " + std::to_string(view.page) + "</span><span>";
  if (view.has_more) body += page_link(view.form, view.page + 1, "Older \xE2\x86\x92");
  body += "</span></div>\n";
  body += "<p><a class=\"csv\" href=\"/anomalies.csv?" + attr(filter_query(view.form)) +
          "\" download>Download the filtered list as CSV</a></p>\n";
  return layout("Anomalies", body);
}

std::string anomaly_page(const AnomalyDetail& detail, const std::string& why, const std::string& csrf,
                         const std::string& result, time_t now) {
  const AnomalyRecord& record = detail.record;
  std::string body = "<p><a href=\"/\">\xE2\x86\x90 All anomalies</a></p>\n";
  body += "<p class=\"current-state\">State: " + state_badge(detail.state) + "</p>\n";
  if (!result.empty()) body += "<p class=\"result\" role=\"status\">" + html_escape(result) + "</p>\n";
  body += "<div class=\"actions\" role=\"group\" aria-label=\"Verdict\">";
  body += action_form(record.id, "false-positive", "Report as false positive", csrf, true);
  body += action_form(record.id, "acknowledge", "Acknowledge", csrf, false);
  body += "</div>\n";
  body += "<div class=\"legend\"><span class=\"l-history\">accepted jobs of the workload</span>"
          "<span class=\"l-band\">usual range of the most similar jobs</span>"
          "<span class=\"l-job\">the anomalous job</span></div>\n";
  body += HtmlReport::card(record, detail.history, now);
  body += "<p><a class=\"workload-link\" href=\"" + attr(workload_path_of(record.id)) +
          "\">The workload's history, anomalies and model \xE2\x86\x92</a></p>\n";
  body += why;
  return layout("Anomaly " + record.id, body);
}

std::string message_page(const std::string& title, const std::string& text) {
  return layout(title, "<div class=\"empty\"><strong>" + html_escape(title) + "</strong>" + html_escape(text) +
                           "</div>\n");
}

std::string hidden_filter(const FilterForm& form) {
  std::string out;
  const std::pair<const char*, const std::string*> fields[] = {
      {"client", &form.client}, {"policy", &form.policy}, {"from", &form.from}, {"to", &form.to},
      {"state", &form.state}};
  for (const auto& [name, value] : fields) {
    out += std::string("<input type=\"hidden\" name=\"") + name + "\" value=\"" + attr(*value) + "\">";
  }
  return out;
}

std::string sign_in_page(const std::string& text, const std::string& action,
                         const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string form = "<form class=\"sign-in\" method=\"get\" action=\"" + attr(action) + "\">";
  for (const auto& [name, value] : fields) {
    form += "<input type=\"hidden\" name=\"" + attr(name) + "\" value=\"" + attr(value) + "\">";
  }
  form += "<label>Access token <input type=\"password\" name=\"token\" autocomplete=\"current-password\" "
          "required></label> <button type=\"submit\">Sign in</button></form>\n";
  return layout("Sign-in needed", "<div class=\"empty\"><strong>Sign-in needed</strong>" + html_escape(text) +
                                      "</div>\n" + form);
}

std::string stylesheet() { return std::string(HtmlReport::stylesheet()) + kConsoleStyle; }

}  // namespace console_pages
