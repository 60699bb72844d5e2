#include "report/HtmlReport.h"

#include <map>
#include <set>
#include <utility>

#include "platform/LocalTime.h"
#include "contract/AnomalyPayload.h"
#include "contract/Features.h"
#include "report/HtmlEscape.h"
#include "util/TimeUnits.h"

namespace {

std::string tile(const std::string& kind, const std::string& label, const std::string& value,
                 const std::string& sub) {
  return "<div class=\"tile " + kind + "\"><div class=\"label\">" + label + "</div><div class=\"value\">" + value +
         "</div>" + (sub.empty() ? "" : "<div class=\"sub\">" + sub + "</div>") + "</div>\n";
}

}  // namespace

HtmlReport::HtmlReport(std::string database_path, time_t generated_at)
    : database_path_(std::move(database_path)), generated_at_(generated_at) {}

void HtmlReport::summarise(const std::vector<AnomalyRecord>& all) {
  total_ = all.size();
  std::set<std::string> clients;
  std::map<std::string, std::size_t> kinds;
  last_day_ = last_week_ = 0;
  for (const AnomalyRecord& record : all) {
    clients.insert(record.client);
    if (record.detection_time >= generated_at_ - kSecondsPerDay) ++last_day_;
    if (record.detection_time >= generated_at_ - 7 * kSecondsPerDay) ++last_week_;
    for (const std::string& kind : anomaly_payload::summary_names(record.summary)) ++kinds[kind];
  }
  clients_ = clients.size();
  top_kind_.clear();
  top_kind_count_ = 0;
  // The detector's own order first, so that a tie always names the same kind.
  for (const Feature f : kReportOrder) {
    const auto found = kinds.find(feature_info(f).summary_name);
    if (found != kinds.end() && found->second > top_kind_count_) {
      top_kind_ = found->first;
      top_kind_count_ = found->second;
    }
  }
  for (const auto& [kind, count] : kinds) {
    if (count > top_kind_count_) {
      top_kind_ = kind;
      top_kind_count_ = count;
    }
  }
}

void HtmlReport::add_card(const AnomalyRecord& anomaly, const WorkloadHistory& history) {
  cards_ += card(anomaly, history, generated_at_);
  ++card_count_;
}

std::string HtmlReport::html() const {
  std::string out;
  out.reserve(8192 + cards_.size());
  out += page_head();
  out += summary_tiles();
  out += findings();
  out += "<footer>Each card is one backup job the detector found unlike its workload's earlier jobs. The charts show "
         "only the features that left their usual range; the score is the job's distance to the nearest group of "
         "normal jobs.</footer>\n";
  out += "</div>\n</body>\n</html>\n";
  return out;
}

// The document's head and the page's title block, naming the database
// (its file name in the window title) and when the page was made.
std::string HtmlReport::page_head() const {
  std::string name = database_path_;
  if (const auto slash = name.find_last_of('/'); slash != std::string::npos && slash + 1 < name.size()) {
    name = name.substr(slash + 1);
  }
  const std::string generated = local_time_text(generated_at_);
  const std::string zone = local_time_text(generated_at_, "%Z");

  std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  out += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  out += "<meta name=\"generator\" content=\"tsanomalyctl report\">\n";
  out += "<title>Backup anomaly report \xE2\x80\x93 " + html_escape(name) + "</title>\n";
  out += "<style>" + std::string(stylesheet()) + "</style>\n</head>\n<body>\n<div class=\"page\">\n";

  out += "<header class=\"top\">\n<h1>Backup anomaly report</h1>\n";
  out += "<p class=\"meta\">Database <code class=\"database\">" + html_escape(database_path_) +
         "</code> \xC2\xB7 generated <time class=\"generated\">" + html_escape(generated) + "</time> " + html_escape(zone) +
         " (all times are local)</p>\n</header>\n";
  return out;
}

std::string HtmlReport::summary_tiles() const {
  std::string out = "<section class=\"summary\">\n";
  out += tile("total", "Anomalies", std::to_string(total_), "");
  out += tile("clients", "Clients affected", std::to_string(clients_), "");
  out += tile("day", "Last 24 hours", std::to_string(last_day_), "");
  out += tile("week", "Last 7 days", std::to_string(last_week_), "");
  out += tile("kind", "Most frequent kind", top_kind_.empty() ? "\xE2\x80\x94" : html_escape(top_kind_),
              top_kind_.empty() ? ""
                                : "in " + std::to_string(top_kind_count_) + " of " + std::to_string(total_) +
                                      (total_ == 1 ? " anomaly" : " anomalies"));
  out += "</section>\n";
  return out;
}

// The cards under their legend, or a word that there is nothing to show.
std::string HtmlReport::findings() const {
  if (total_ == 0 && card_count_ == 0) {
    return "<div class=\"empty\"><strong>No anomalies reported</strong>The detector has not flagged any backup job "
           "in this database.</div>\n";
  }
  std::string out;
  if (card_count_ < total_) {
    out += "<p class=\"showing\">Showing the newest " + std::to_string(card_count_) + " of " +
           std::to_string(total_) + " anomalies.</p>\n";
  }
  out += "<div class=\"legend\"><span class=\"l-history\">accepted jobs of the workload</span>"
         "<span class=\"l-band\">usual range of the most similar jobs</span>"
         "<span class=\"l-job\">the anomalous job</span></div>\n";
  out += "<main>\n" + cards_ + "</main>\n";
  return out;
}
