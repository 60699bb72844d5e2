#include "tools/SvgChart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "tools/HtmlEscape.h"

namespace {

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Colours of the page's palette, repeated here as presentation attributes so
// that a chart copied out of the page still looks the same.
constexpr const char* kGrid = "#e3e7ed";
constexpr const char* kAxisText = "#5b6573";
constexpr const char* kLine = "#8fb1d9";
constexpr const char* kDot = "#2f6db5";
constexpr const char* kBand = "#2e9e5b";
constexpr const char* kJob = "#d93025";

std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// Coordinates with one decimal keep the markup short and are far finer than
// a pixel.
std::string coord(double value) { return number(value, 1); }

// "12345.6" -> "12,345.6"; a leading minus sign stays in front.
std::string grouped(const std::string& plain) {
  const std::size_t start = (!plain.empty() && plain[0] == '-') ? 1 : 0;
  std::size_t end = plain.find('.');
  if (end == std::string::npos) end = plain.size();
  std::string out = plain.substr(0, start);
  for (std::size_t at = start; at < end; ++at) {
    if (at > start && (end - at) % 3 == 0) out += ',';
    out += plain[at];
  }
  out += plain.substr(end);
  return out;
}

// 1, 2 or 5 times a power of ten, no smaller than raw.
double nice_step(double raw) {
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  const double fraction = raw / power;
  const double nice = fraction <= 1 ? 1 : fraction <= 2 ? 2 : fraction <= 5 ? 5 : 10;
  return nice * power;
}

int decimals_for(double step) {
  return std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
}

struct tm local_parts(time_t t) {
  struct tm parts {};
  if (localtime_r(&t, &parts) == nullptr) parts = {};
  return parts;
}

std::string local_date_time(time_t t) {
  const struct tm parts = local_parts(t);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                parts.tm_hour, parts.tm_min);
  return text;
}

}  // namespace

SvgChart::SvgChart(Unit unit, std::vector<Point> history, Point job, std::optional<Range> usual,
                   std::string job_label, std::string title)
    : unit_(unit), job_(job), usual_(usual), job_label_(std::move(job_label)), title_(std::move(title)) {
  // A value the database could not turn into a number has no place on an axis.
  for (const Point& point : history) {
    if (std::isfinite(point.value)) history_.push_back(point);
  }
  if (usual_ && (!std::isfinite(usual_->low) || !std::isfinite(usual_->high))) usual_.reset();
  if (usual_ && usual_->low > usual_->high) std::swap(usual_->low, usual_->high);
  choose_value_axis();
  choose_time_axis();
}

void SvgChart::choose_value_axis() {
  std::vector<double> values;
  for (const Point& point : history_) values.push_back(point.value);
  if (std::isfinite(job_.value)) values.push_back(job_.value);
  if (usual_) {
    values.push_back(usual_->low);
    values.push_back(usual_->high);
  }
  double low = values.empty() ? 0 : *std::min_element(values.begin(), values.end());
  double high = values.empty() ? 1 : *std::max_element(values.begin(), values.end());

  const double magnitude = std::max(std::fabs(low), std::fabs(high));
  switch (unit_) {
    case Unit::Kilobytes: {
      const char* units[] = {"KB", "MB", "GB", "TB", "PB"};
      int index = 0;
      while (index < 4 && magnitude >= scale_ * 1024) {
        scale_ *= 1024;
        ++index;
      }
      axis_unit_ = units[index];
      break;
    }
    case Unit::Seconds:
      if (magnitude >= 3 * 3600) {
        scale_ = 3600;
        axis_unit_ = "h";
      } else if (magnitude >= 120) {
        scale_ = 60;
        axis_unit_ = "min";
      } else {
        axis_unit_ = "s";
      }
      break;
    case Unit::Count:
      if (magnitude >= 1e6) {
        scale_ = 1e6;
        axis_unit_ = "million";
      }
      break;
    case Unit::Ratio:
      break;
  }

  low /= scale_;
  high /= scale_;
  // Sizes, counts and durations read best from zero unless the data sit far
  // above it, where a zero-based axis would squash them into a flat line.
  const bool from_zero = low >= 0 && low <= 0.5 * high;
  if (from_zero) low = 0;
  if (high - low <= 1e-9 * std::max(1.0, std::fabs(high))) {
    if (high == 0) {
      high = 1;
    } else {
      const double pad = std::fabs(high) * 0.1;
      low = low >= 0 ? std::max(0.0, low - pad) : low - pad;
      high += pad;
    }
  }
  // A little headroom keeps the highest and lowest dots off the frame.
  const double headroom = (high - low) * 0.05;
  high += headroom;
  if (low != 0) low -= headroom;

  double step = nice_step((high - low) / 4);
  if (unit_ == Unit::Count && scale_ == 1) step = std::max(step, 1.0);
  const double first = std::floor(low / step) * step;
  double last = std::ceil(high / step) * step;
  if (last <= first) last = first + step;
  const int intervals = static_cast<int>(std::lround((last - first) / step));
  for (int i = 0; i <= intervals; ++i) value_ticks_.push_back((first + i * step) * scale_);
  value_min_ = first * scale_;
  value_max_ = (first + intervals * step) * scale_;
  decimals_ = decimals_for(step);
}

void SvgChart::choose_time_axis() {
  time_t first = job_.time, last = job_.time;
  for (const Point& point : history_) {
    first = std::min(first, point.time);
    last = std::max(last, point.time);
  }
  const double span = static_cast<double>(last - first);
  const time_t pad = span == 0 ? 12 * 3600 : static_cast<time_t>(std::max(span * 0.04, 1800.0));
  time_min_ = first - pad;
  time_max_ = last + pad;
  const double width = static_cast<double>(time_max_ - time_min_);

  // The smallest calendar step that gives at most six labels.
  struct Candidate {
    TimeStep kind;
    int step;
    double seconds;
  };
  const Candidate candidates[] = {
      {TimeStep::Hours, 1, 3600},         {TimeStep::Hours, 2, 7200},         {TimeStep::Hours, 3, 10800},
      {TimeStep::Hours, 6, 21600},        {TimeStep::Hours, 12, 43200},       {TimeStep::Days, 1, 86400},
      {TimeStep::Days, 2, 172800},        {TimeStep::Days, 7, 604800},        {TimeStep::Days, 14, 1209600},
      {TimeStep::Months, 1, 2629746},     {TimeStep::Months, 2, 5259492},     {TimeStep::Months, 3, 7889238},
      {TimeStep::Months, 6, 15778476},    {TimeStep::Months, 12, 31556952},   {TimeStep::Months, 24, 63113904},
      {TimeStep::Months, 60, 157784760},  {TimeStep::Months, 120, 315569520},
  };
  const Candidate* chosen = &candidates[std::size(candidates) - 1];
  for (const Candidate& candidate : candidates) {
    if (width / candidate.seconds <= 6) {
      chosen = &candidate;
      break;
    }
  }
  time_step_kind_ = chosen->kind;
  time_step_ = chosen->step;

  // Ticks fall on round local times: whole hours, midnights (Mondays for
  // weekly steps), the first of a month.
  struct tm parts = local_parts(time_min_);
  parts.tm_sec = 0;
  parts.tm_min = 0;
  switch (time_step_kind_) {
    case TimeStep::Hours:
      parts.tm_hour -= parts.tm_hour % time_step_;
      break;
    case TimeStep::Days:
      parts.tm_hour = 0;
      if (time_step_ == 7) parts.tm_mday -= (parts.tm_wday + 6) % 7;
      break;
    case TimeStep::Months:
      parts.tm_hour = 0;
      parts.tm_mday = 1;
      if (time_step_ <= 12) {
        parts.tm_mon -= parts.tm_mon % time_step_;
      } else {
        parts.tm_mon = 0;
        parts.tm_year -= (parts.tm_year + 1900) % (time_step_ / 12);
      }
      break;
  }
  for (int guard = 0; guard < 200 && time_ticks_.size() < 12; ++guard) {
    parts.tm_isdst = -1;
    struct tm normalised = parts;
    const time_t t = mktime(&normalised);
    if (t == static_cast<time_t>(-1) || t > time_max_) break;
    if (t >= time_min_ && (time_ticks_.empty() || t > time_ticks_.back())) time_ticks_.push_back(t);
    switch (time_step_kind_) {
      case TimeStep::Hours:
        parts.tm_hour += time_step_;
        break;
      case TimeStep::Days:
        parts.tm_mday += time_step_;
        break;
      case TimeStep::Months:
        parts.tm_mon += time_step_;
        break;
    }
  }
}

double SvgChart::x(time_t t) const {
  const double share = static_cast<double>(t - time_min_) / static_cast<double>(time_max_ - time_min_);
  return kPlotLeft + share * (kPlotRight - kPlotLeft);
}

double SvgChart::y(double value) const {
  const double share = (value - value_min_) / (value_max_ - value_min_);
  return kPlotBottom - share * (kPlotBottom - kPlotTop);
}

std::string SvgChart::value_label(double value) const {
  double shown = value / scale_;
  // Ticks are sums of steps; what rounds to zero is zero, not "-0".
  if (std::fabs(shown) < 0.5 * std::pow(10.0, -decimals_)) shown = 0;
  const std::string text = grouped(number(shown, decimals_));
  return axis_unit_.empty() ? text : text + " " + axis_unit_;
}

std::string SvgChart::time_label(time_t t) const {
  const struct tm parts = local_parts(t);
  const std::string month = kMonths[std::clamp(parts.tm_mon, 0, 11)];
  char text[48];
  switch (time_step_kind_) {
    case TimeStep::Hours:
      if (parts.tm_hour == 0 || time_ticks_.empty() || t == time_ticks_.front()) {
        std::snprintf(text, sizeof text, "%s %d %02d:%02d", month.c_str(), parts.tm_mday, parts.tm_hour,
                      parts.tm_min);
      } else {
        std::snprintf(text, sizeof text, "%02d:%02d", parts.tm_hour, parts.tm_min);
      }
      break;
    case TimeStep::Days:
      // The year is shown on the first tick and wherever a new year starts.
      if (time_ticks_.empty() || t == time_ticks_.front() || (parts.tm_mon == 0 && parts.tm_mday <= time_step_)) {
        std::snprintf(text, sizeof text, "%s %d, %d", month.c_str(), parts.tm_mday, parts.tm_year + 1900);
      } else {
        std::snprintf(text, sizeof text, "%s %d", month.c_str(), parts.tm_mday);
      }
      break;
    case TimeStep::Months:
      if (time_step_ >= 12) {
        std::snprintf(text, sizeof text, "%d", parts.tm_year + 1900);
      } else {
        std::snprintf(text, sizeof text, "%s %d", month.c_str(), parts.tm_year + 1900);
      }
      break;
  }
  return text;
}

std::string SvgChart::svg() const {
  const auto esc = [](const std::string& text) { return html_escape(text); };
  // Hover texts carry one decimal more than the axis.
  const auto precise = [this](double value) {
    const int decimals = (unit_ == Unit::Count && scale_ == 1) ? 0 : std::min(decimals_ + 1, 3);
    const std::string text = grouped(number(value / scale_, decimals));
    return axis_unit_.empty() ? text : text + " " + axis_unit_;
  };

  std::string aria = title_ + " over time";
  if (usual_) aria += "; usual range " + precise(usual_->low) + " to " + precise(usual_->high);
  aria += "; " + job_label_;

  std::string out;
  out.reserve(4096 + history_.size() * 120);
  out += "<svg class=\"chart\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + coord(kWidth) + " " +
         coord(kHeight) + "\" role=\"img\" aria-label=\"" + esc(aria) +
         "\" font-family=\"system-ui, -apple-system, 'Segoe UI', Roboto, sans-serif\" font-size=\"11\">\n";

  // Value grid and labels.
  out += "<g class=\"y-axis\">\n";
  for (const double tick : value_ticks_) {
    const std::string ty = coord(y(tick));
    out += "<line x1=\"" + coord(kPlotLeft) + "\" x2=\"" + coord(kPlotRight) + "\" y1=\"" + ty + "\" y2=\"" + ty +
           "\" stroke=\"" + kGrid + "\" stroke-width=\"1\"/>";
    out += "<text x=\"" + coord(kPlotLeft - 8) + "\" y=\"" + coord(y(tick) + 3.5) + "\" text-anchor=\"end\" fill=\"" +
           kAxisText + "\">" + esc(value_label(tick)) + "</text>\n";
  }
  out += "</g>\n";

  // Time axis: a base line and a few dated ticks.
  out += "<g class=\"x-axis\">\n";
  out += "<line x1=\"" + coord(kPlotLeft) + "\" x2=\"" + coord(kPlotRight) + "\" y1=\"" + coord(kPlotBottom) +
         "\" y2=\"" + coord(kPlotBottom) + "\" stroke=\"#b8c0cc\" stroke-width=\"1\"/>\n";
  for (const time_t tick : time_ticks_) {
    const std::string tx = coord(x(tick));
    out += "<line x1=\"" + tx + "\" x2=\"" + tx + "\" y1=\"" + coord(kPlotBottom) + "\" y2=\"" +
           coord(kPlotBottom + 4) + "\" stroke=\"#b8c0cc\" stroke-width=\"1\"/>";
    out += "<text x=\"" + tx + "\" y=\"" + coord(kPlotBottom + 17) + "\" text-anchor=\"middle\" fill=\"" + kAxisText +
           "\">" + esc(time_label(tick)) + "</text>\n";
  }
  out += "</g>\n";

  // The usual range of the nearest cluster, across the whole period: the
  // band the job is measured against. A range of a single value still gets
  // a visible sliver.
  if (usual_) {
    const double top = y(usual_->high);
    const double height = std::max(y(usual_->low) - top, 0.0);
    const double drawn = std::max(height, 2.0);
    const double drawn_top = top - (drawn - height) / 2;
    out += "<g class=\"usual\">\n";
    out += "<rect class=\"band\" x=\"" + coord(kPlotLeft) + "\" y=\"" + coord(drawn_top) + "\" width=\"" +
           coord(kPlotRight - kPlotLeft) + "\" height=\"" + coord(drawn) + "\" fill=\"" + kBand +
           "\" fill-opacity=\"0.14\" data-low=\"" + coord(y(usual_->low)) + "\" data-high=\"" + coord(top) +
           "\"><title>" + esc("usual range: " + precise(usual_->low) + " to " + precise(usual_->high)) +
           "</title></rect>\n";
    for (const double edge : {top, top + height}) {
      out += "<line x1=\"" + coord(kPlotLeft) + "\" x2=\"" + coord(kPlotRight) + "\" y1=\"" + coord(edge) +
             "\" y2=\"" + coord(edge) + "\" stroke=\"" + kBand +
             "\" stroke-opacity=\"0.55\" stroke-width=\"1\" stroke-dasharray=\"4 3\"/>\n";
    }
    // Above the band, where the history (which mostly lies inside it) does
    // not cover the words; below it when the band touches the top.
    const double label_y = top - 4 >= kPlotTop + 6 ? top - 4 : top + height + 11;
    out += "<text class=\"band-label\" x=\"" + coord(kPlotLeft + 6) + "\" y=\"" + coord(label_y) + "\" fill=\"" +
           kBand + "\" font-size=\"10\">usual range</text>\n";
    out += "</g>\n";
  }

  // The workload's history: a line through the jobs in time order, and a
  // dot per job while they are few enough to tell apart.
  if (!history_.empty()) {
    std::string path;
    for (const Point& point : history_) {
      path += (path.empty() ? "M" : " L") + coord(x(point.time)) + " " + coord(y(point.value));
    }
    out += "<path class=\"history\" d=\"" + path + "\" fill=\"none\" stroke=\"" + kLine +
           "\" stroke-width=\"1.5\" stroke-linejoin=\"round\"/>\n";
    if (history_.size() <= kMaxDots) {
      out += "<g class=\"points\" fill=\"" + std::string(kDot) + "\">\n";
      for (const Point& point : history_) {
        out += "<circle class=\"point\" cx=\"" + coord(x(point.time)) + "\" cy=\"" + coord(y(point.value)) +
               "\" r=\"2.6\"><title>" + esc(local_date_time(point.time) + " \xC2\xB7 " + precise(point.value)) +
               "</title></circle>\n";
      }
      out += "</g>\n";
    }
  }

  // The anomalous job, with its value spelled out beside it.
  if (std::isfinite(job_.value)) {
    const double cx = x(job_.time);
    const double cy = y(job_.value);
    out += "<circle class=\"job\" cx=\"" + coord(cx) + "\" cy=\"" + coord(cy) + "\" r=\"5.5\" fill=\"" + kJob +
           "\" stroke=\"#fff\" stroke-width=\"2\"><title>" + esc(local_date_time(job_.time) + " \xC2\xB7 " + job_label_) +
           "</title></circle>\n";
    const bool left = cx > (kPlotLeft + kPlotRight) / 2;
    const double lx = left ? cx - 10 : cx + 10;
    const double ly = cy - 10 >= kPlotTop + 10 ? cy - 10 : cy + 19;
    out += "<text class=\"job-label\" x=\"" + coord(lx) + "\" y=\"" + coord(ly) + "\" text-anchor=\"" +
           (left ? "end" : "start") + "\" fill=\"" + kJob +
           "\" font-weight=\"600\" stroke=\"#fff\" stroke-width=\"4\" stroke-linejoin=\"round\" "
           "paint-order=\"stroke\">" +
           esc(job_label_) + "</text>\n";
  }
  out += "</svg>";
  return out;
}
