// HtmlReport's cards: one anomaly's client, time, score, kinds and facts,
// and per feature out of range its reading beside a chart of the workload's
// history.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "platform/LocalTime.h"
#include "contract/AnomalyPayload.h"
#include "contract/Features.h"
#include "report/HtmlEscape.h"
#include "report/HtmlReport.h"
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

// Client, detection time and score.
std::string card_head(const AnomalyRecord& anomaly, time_t now) {
  std::string out = "<div class=\"card-head\"><div><h2 class=\"client\">" + or_dash(anomaly.client) + "</h2>";
  out += "<div class=\"when\">Detected <time>" + html_escape(local_time_text(anomaly.detection_time)) +
         "</time> \xC2\xB7 " + relative(now, anomaly.detection_time) + "</div></div>";
  out += "<span class=\"score\" title=\"Distance to the nearest cluster of normal jobs; larger is stranger\">Score " +
         or_dash(anomaly.score) + "</span></div>\n";
  return out;
}

// The kinds of anomaly the summary names, if any.
std::string kind_list(const std::string& summary) {
  const std::vector<std::string> kinds = anomaly_payload::summary_names(summary);
  if (kinds.empty()) return "";
  std::string out = "<ul class=\"kinds\">";
  for (const std::string& kind : kinds) out += "<li>" + html_escape(kind) + "</li>";
  out += "</ul>\n";
  return out;
}

std::string facts(const AnomalyRecord& anomaly) {
  std::string out = "<dl class=\"facts\">";
  out += fact("Policy", or_dash(anomaly.policy));
  out += fact("Policy type", or_dash(anomaly.policy_type));
  out += fact("Schedule", or_dash(anomaly.schedule_name));
  out += fact("Storage", or_dash(anomaly.storage_name));
  out += fact("Anomaly id", "<code>" + or_dash(anomaly.id) + "</code>");
  out += "</dl>\n";
  return out;
}

// Why a card shows no chart, when it shows none.
std::string no_chart_note(const AnomalyRecord& anomaly, const WorkloadHistory& history) {
  if (anomaly.attributes.empty()) {
    return "<p class=\"note\">The stored report names no feature outside its usual range.</p>\n";
  }
  if (!history.job_found) {
    return "<p class=\"note\">This job is no longer in the detection queue (it was, for example, reported as a "
           "false positive and moved into the history), so there is nothing to chart.</p>\n";
  }
  if (history.history.empty()) {
    return "<p class=\"note\">This workload has no accepted jobs in its history yet, so there is nothing to "
           "compare this job with.</p>\n";
  }
  return "";
}

// The job's value against its usual range, and how far off it is; the
// attribute's text as stored when it cannot be read.
std::string reading_line(const FeatureInfo* feature, const std::string& text) {
  const auto reading = anomaly_payload::parse_reading(text);
  if (!reading || feature == nullptr) return "<div class=\"reading\">" + html_escape(text) + "</div>";
  const std::string suffix = text_suffix(feature->unit);
  std::string now = html_escape(reading->current_text + suffix);
  if (feature->unit == FeatureUnit::Seconds) now += " (" + duration(reading->current) + ")";
  std::string out = "<div class=\"reading\"><span class=\"now\">" + now + "</span><span class=\"usual\">usual " +
                    html_escape(reading->low_text + suffix) + " \xE2\x80\x93 " +
                    html_escape(reading->high_text + suffix) + "</span>";
  const std::string off = deviation(*reading);
  if (!off.empty()) out += "<span class=\"off\">" + off + "</span>";
  out += "</div>";
  return out;
}

// One attribute of the payload: its title, reading and chart.
std::string feature_section(const std::string& member, const std::string& text, const WorkloadHistory& history) {
  const FeatureInfo* feature = feature_by_member(member);
  std::string out = "<section class=\"feature\" data-feature=\"" + html_escape(member) + "\">";
  out += "<h3>" + html_escape(feature != nullptr ? feature->title : member) + "</h3>";
  out += reading_line(feature, text);
  if (const auto chart = HtmlReport::chart_for(member, text, history)) {
    out += '\n';
    out += chart->svg();
  }
  out += "</section>\n";
  return out;
}

}  // namespace

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

std::string HtmlReport::card(const AnomalyRecord& anomaly, const WorkloadHistory& history, time_t now) {
  std::string out = "<article class=\"card\" data-anomaly-id=\"" + html_escape(anomaly.id) + "\">\n";
  out += card_head(anomaly, now);
  out += kind_list(anomaly.summary);
  out += facts(anomaly);
  out += no_chart_note(anomaly, history);
  if (!anomaly.attributes.empty()) {
    out += "<div class=\"features\">\n";
    for (const auto& [member, text] : anomaly.attributes) out += feature_section(member, text, history);
    out += "</div>\n";
  }
  out += "</article>\n";
  return out;
}
