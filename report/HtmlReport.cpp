#include "report/HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>

#include "platform/LocalTime.h"
#include "contract/AnomalyPayload.h"
#include "contract/Features.h"
#include "report/HtmlEscape.h"
#include "util/TimeUnits.h"

namespace {

using anomaly_payload::Reading;

// The unit an attribute text leaves out, shown after its numbers.
const char* text_suffix(FeatureUnit unit) {
  switch (unit) {
    case FeatureUnit::Count: return " files";
    case FeatureUnit::Seconds: return " s";
    default: return "";
  }
}


std::string plural(long long n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// "3 hours ago", for a reader who wants to know how fresh a finding is.
std::string relative(time_t now, time_t then) {
  const long long seconds = static_cast<long long>(now) - static_cast<long long>(then);
  if (seconds < 0) return "in the future";
  if (seconds < 60) return "just now";
  if (seconds < 3600) return plural(seconds / 60, "minute", "minutes") + " ago";
  constexpr long long kDay = kSecondsPerDay;
  if (seconds < kDay) return plural(seconds / kSecondsPerHour, "hour", "hours") + " ago";
  if (seconds < kDay * 60) return plural(seconds / kDay, "day", "days") + " ago";
  if (seconds < kDay * 730) return plural(seconds / (kDay * 30), "month", "months") + " ago";
  return plural(seconds / (kDay * 365), "year", "years") + " ago";
}

// "2 h 05 min", "12 min 30 s": a job's duration as an administrator says it.
std::string duration(double seconds) {
  const long long total = std::llround(std::max(seconds, 0.0));
  char text[64];
  if (total >= 3600) {
    std::snprintf(text, sizeof text, "%lld h %02lld min", total / 3600, total % 3600 / 60);
  } else if (total >= 60) {
    std::snprintf(text, sizeof text, "%lld min %02lld s", total / 60, total % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld s", total);
  }
  return text;
}

std::string or_dash(const std::string& text) { return text.empty() ? "\xE2\x80\x94" : html_escape(text); }

std::string fact(const char* label, const std::string& escaped_value) {
  return "<div><dt>" + std::string(label) + "</dt><dd>" + escaped_value + "</dd></div>";
}

// How far outside its range the job lies, e.g. "28% above the usual range".
std::string deviation(const Reading& reading) {
  char text[96];
  if (reading.current > reading.high && reading.high > 0) {
    const double percent = (reading.current - reading.high) / reading.high * 100;
    if (percent >= 1000) {
      std::snprintf(text, sizeof text, "\xE2\x96\xB2 %.0f\xC3\x97 the usual maximum", reading.current / reading.high);
    } else {
      std::snprintf(text, sizeof text, "\xE2\x96\xB2 %.0f%% above the usual range", std::max(percent, 1.0));
    }
    return text;
  }
  if (reading.current > reading.high) return "\xE2\x96\xB2 above the usual range";
  if (reading.current < reading.low && reading.low > 0) {
    const double percent = (reading.low - reading.current) / reading.low * 100;
    std::snprintf(text, sizeof text, "\xE2\x96\xBC %.0f%% below the usual range", std::max(percent, 1.0));
    return text;
  }
  if (reading.current < reading.low) return "\xE2\x96\xBC below the usual range";
  return "";
}


}  // namespace

HtmlReport::HtmlReport(std::string database_path, time_t generated_at)
    : database_path_(std::move(database_path)), generated_at_(generated_at) {}

std::optional<SvgChart> HtmlReport::chart_for(const std::string& member, const std::string& text,
                                              const WorkloadHistory& history) {
  const FeatureInfo* feature = feature_by_member(member);
  if (feature == nullptr || !history.job_found || history.history.empty()) return std::nullopt;
  std::vector<SvgChart::Point> points;
  points.reserve(history.history.size());
  for (const HistoryPoint& point : history.history) points.push_back({point.backup_time, point.features[feature->feature]});
  const SvgChart::Point job{history.job.backup_time, history.job.features[feature->feature]};

  std::optional<SvgChart::Range> usual;
  std::string label = "this job: ";
  if (const auto reading = anomaly_payload::parse_reading(text)) {
    // A cluster without members is written as the range -1 - -1 (sizes as
    // -0.00 MB): there is no usual range to draw then.
    if (reading->high >= 0) {
      const double scale = anomaly_payload::text_to_stored(feature->text_form);
      usual = SvgChart::Range{reading->low * scale, reading->high * scale};
    }
    label += reading->current_text + text_suffix(feature->unit);
  } else {
    char value[64];
    std::snprintf(value, sizeof value, "%g", job.value);
    label += value;
  }
  return SvgChart(feature->unit, std::move(points), job, usual, label, feature->title);
}

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


std::string HtmlReport::card(const AnomalyRecord& anomaly, const WorkloadHistory& history, time_t now) {
  std::string out = "<article class=\"card\" data-anomaly-id=\"" + html_escape(anomaly.id) + "\">\n";
  out += "<div class=\"card-head\"><div><h2 class=\"client\">" + or_dash(anomaly.client) + "</h2>";
  out += "<div class=\"when\">Detected <time>" + html_escape(local_time_text(anomaly.detection_time)) +
         "</time> \xC2\xB7 " + relative(now, anomaly.detection_time) + "</div></div>";
  out += "<span class=\"score\" title=\"Distance to the nearest cluster of normal jobs; larger is stranger\">Score " +
         or_dash(anomaly.score) + "</span></div>\n";

  const std::vector<std::string> kinds = anomaly_payload::summary_names(anomaly.summary);
  if (!kinds.empty()) {
    out += "<ul class=\"kinds\">";
    for (const std::string& kind : kinds) out += "<li>" + html_escape(kind) + "</li>";
    out += "</ul>\n";
  }

  out += "<dl class=\"facts\">";
  out += fact("Policy", or_dash(anomaly.policy));
  out += fact("Policy type", or_dash(anomaly.policy_type));
  out += fact("Schedule", or_dash(anomaly.schedule_name));
  out += fact("Storage", or_dash(anomaly.storage_name));
  out += fact("Anomaly id", "<code>" + or_dash(anomaly.id) + "</code>");
  out += "</dl>\n";

  if (anomaly.attributes.empty()) {
    out += "<p class=\"note\">The stored report names no feature outside its usual range.</p>\n";
  } else if (!history.job_found) {
    out += "<p class=\"note\">This job is no longer in the detection queue (it was, for example, reported as a "
           "false positive and moved into the history), so there is nothing to chart.</p>\n";
  } else if (history.history.empty()) {
    out += "<p class=\"note\">This workload has no accepted jobs in its history yet, so there is nothing to "
           "compare this job with.</p>\n";
  }

  if (!anomaly.attributes.empty()) {
    out += "<div class=\"features\">\n";
    for (const auto& [member, text] : anomaly.attributes) {
      const FeatureInfo* feature = feature_by_member(member);
      out += "<section class=\"feature\" data-feature=\"" + html_escape(member) + "\">";
      out += "<h3>" + html_escape(feature != nullptr ? feature->title : member) + "</h3>";
      const auto reading = anomaly_payload::parse_reading(text);
      if (reading && feature != nullptr) {
        const std::string suffix = text_suffix(feature->unit);
        std::string now = html_escape(reading->current_text + suffix);
        if (feature->unit == FeatureUnit::Seconds) now += " (" + duration(reading->current) + ")";
        out += "<div class=\"reading\"><span class=\"now\">" + now + "</span><span class=\"usual\">usual " +
               html_escape(reading->low_text + suffix) + " \xE2\x80\x93 " + html_escape(reading->high_text + suffix) +
               "</span>";
        const std::string off = deviation(*reading);
        if (!off.empty()) out += "<span class=\"off\">" + off + "</span>";
        out += "</div>";
      } else {
        out += "<div class=\"reading\">" + html_escape(text) + "</div>";
      }
      if (const auto chart = chart_for(member, text, history)) {
        out += '\n';
        out += chart->svg();
      }
      out += "</section>\n";
    }
    out += "</div>\n";
  }
  out += "</article>\n";
  return out;
}

std::string HtmlReport::html() const {
  std::string name = database_path_;
  if (const auto slash = name.find_last_of('/'); slash != std::string::npos && slash + 1 < name.size()) {
    name = name.substr(slash + 1);
  }
  const std::string generated = local_time_text(generated_at_);
  const std::string zone = local_time_text(generated_at_, "%Z");

  std::string out;
  out.reserve(8192 + cards_.size());
  out += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  out += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  out += "<meta name=\"generator\" content=\"tsanomalyctl report\">\n";
  out += "<title>Backup anomaly report \xE2\x80\x93 " + html_escape(name) + "</title>\n";
  out += "<style>" + std::string(stylesheet()) + "</style>\n</head>\n<body>\n<div class=\"page\">\n";

  out += "<header class=\"top\">\n<h1>Backup anomaly report</h1>\n";
  out += "<p class=\"meta\">Database <code class=\"database\">" + html_escape(database_path_) +
         "</code> \xC2\xB7 generated <time class=\"generated\">" + html_escape(generated) + "</time> " + html_escape(zone) +
         " (all times are local)</p>\n</header>\n";

  const auto tile = [](const std::string& kind, const std::string& label, const std::string& value,
                       const std::string& sub) {
    return "<div class=\"tile " + kind + "\"><div class=\"label\">" + label + "</div><div class=\"value\">" + value +
           "</div>" + (sub.empty() ? "" : "<div class=\"sub\">" + sub + "</div>") + "</div>\n";
  };
  out += "<section class=\"summary\">\n";
  out += tile("total", "Anomalies", std::to_string(total_), "");
  out += tile("clients", "Clients affected", std::to_string(clients_), "");
  out += tile("day", "Last 24 hours", std::to_string(last_day_), "");
  out += tile("week", "Last 7 days", std::to_string(last_week_), "");
  out += tile("kind", "Most frequent kind", top_kind_.empty() ? "\xE2\x80\x94" : html_escape(top_kind_),
              top_kind_.empty() ? ""
                                : "in " + std::to_string(top_kind_count_) + " of " + std::to_string(total_) +
                                      (total_ == 1 ? " anomaly" : " anomalies"));
  out += "</section>\n";

  if (total_ == 0 && card_count_ == 0) {
    out += "<div class=\"empty\"><strong>No anomalies reported</strong>The detector has not flagged any backup job in "
           "this database.</div>\n";
  } else {
    if (card_count_ < total_) {
      out += "<p class=\"showing\">Showing the newest " + std::to_string(card_count_) + " of " +
             std::to_string(total_) + " anomalies.</p>\n";
    }
    out += "<div class=\"legend\"><span class=\"l-history\">accepted jobs of the workload</span>"
           "<span class=\"l-band\">usual range of the most similar jobs</span>"
           "<span class=\"l-job\">the anomalous job</span></div>\n";
    out += "<main>\n" + cards_ + "</main>\n";
  }
  out += "<footer>Each card is one backup job the detector found unlike its workload's earlier jobs. The charts show "
         "only the features that left their usual range; the score is the job's distance to the nearest group of "
         "normal jobs.</footer>\n";
  out += "</div>\n</body>\n</html>\n";
  return out;
}
