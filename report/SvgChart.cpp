#include "report/SvgChart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "report/HtmlEscape.h"
#include "report/SvgChartText.h"

using svg_chart_text::grouped;
using svg_chart_text::local_parts;
using svg_chart_text::number;

namespace {

// Colours of the page's palette, repeated here as presentation attributes so
// that a chart copied out of the page still looks the same.
constexpr const char* kGrid = "#e3e7ed";
constexpr const char* kAxisText = "#5b6573";
constexpr const char* kLine = "#8fb1d9";
constexpr const char* kDot = "#2f6db5";
constexpr const char* kBand = "#2e9e5b";
constexpr const char* kJob = "#d93025";

// Coordinates with one decimal keep the markup short and are far finer than
// a pixel.
std::string coord(double value) { return number(value, 1); }

std::string local_date_time(time_t t) {
  const struct tm parts = local_parts(t);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                parts.tm_hour, parts.tm_min);
  return text;
}

}  // namespace

SvgChart::SvgChart(Unit unit, std::vector<Point> history, Point job, std::optional<Range> usual,
                   std::string job_label, std::string title, std::vector<Mark> marks)
    : unit_(unit), job_(job), usual_(usual), job_label_(std::move(job_label)), title_(std::move(title)) {
  for (Mark& mark : marks) {
    if (std::isfinite(mark.value)) marks_.push_back(std::move(mark));
  }
  // A value the database could not turn into a number has no place on an axis.
  for (const Point& point : history) {
    if (std::isfinite(point.value)) history_.push_back(point);
  }
  if (usual_ && (!std::isfinite(usual_->low) || !std::isfinite(usual_->high))) usual_.reset();
  if (usual_ && usual_->low > usual_->high) std::swap(usual_->low, usual_->high);
  choose_value_axis();
  choose_time_axis();
}

double SvgChart::x(time_t t) const {
  const double share = static_cast<double>(t - time_min_) / static_cast<double>(time_max_ - time_min_);
  return kPlotLeft + share * (kPlotRight - kPlotLeft);
}

double SvgChart::y(double value) const {
  const double share = (value - value_min_) / (value_max_ - value_min_);
  return kPlotBottom - share * (kPlotBottom - kPlotTop);
}

// Hover texts carry one decimal more than the axis.
std::string SvgChart::precise(double value) const {
  const int decimals = (unit_ == Unit::Count && scale_ == 1) ? 0 : std::min(decimals_ + 1, 3);
  const std::string text = grouped(number(value / scale_, decimals));
  return axis_unit_.empty() ? text : text + " " + axis_unit_;
}

std::string SvgChart::svg() const {
  std::string out;
  out.reserve(4096 + history_.size() * 120);
  out += opening_tag();
  out += value_grid();
  out += time_axis();
  if (usual_) out += usual_band();
  if (!history_.empty()) out += history_line() + history_dots();
  out += marks();
  if (std::isfinite(job_.value)) out += job_marker();
  out += "</svg>";
  return out;
}

// The <svg> tag, its text alternative naming the band and the job.
std::string SvgChart::opening_tag() const {
  std::string aria = title_ + " over time";
  if (usual_) aria += "; usual range " + precise(usual_->low) + " to " + precise(usual_->high);
  aria += "; " + job_label_;
  return "<svg class=\"chart\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + coord(kWidth) + " " +
         coord(kHeight) + "\" role=\"img\" aria-label=\"" + html_escape(aria) +
         "\" font-family=\"system-ui, -apple-system, 'Segoe UI', Roboto, sans-serif\" font-size=\"11\">\n";
}

// Value grid and labels.
std::string SvgChart::value_grid() const {
  std::string out = "<g class=\"y-axis\">\n";
  for (const double tick : value_ticks_) {
    const std::string ty = coord(y(tick));
    out += "<line x1=\"" + coord(kPlotLeft) + "\" x2=\"" + coord(kPlotRight) + "\" y1=\"" + ty + "\" y2=\"" + ty +
           "\" stroke=\"" + kGrid + "\" stroke-width=\"1\"/>";
    out += "<text x=\"" + coord(kPlotLeft - 8) + "\" y=\"" + coord(y(tick) + 3.5) + "\" text-anchor=\"end\" fill=\"" +
           kAxisText + "\">" + html_escape(value_label(tick)) + "</text>\n";
  }
  out += "</g>\n";
  return out;
}

// Time axis: a base line and a few dated ticks.
std::string SvgChart::time_axis() const {
  std::string out = "<g class=\"x-axis\">\n";
  out += "<line x1=\"" + coord(kPlotLeft) + "\" x2=\"" + coord(kPlotRight) + "\" y1=\"" + coord(kPlotBottom) +
         "\" y2=\"" + coord(kPlotBottom) + "\" stroke=\"#b8c0cc\" stroke-width=\"1\"/>\n";
  for (const time_t tick : time_ticks_) {
    const std::string tx = coord(x(tick));
    out += "<line x1=\"" + tx + "\" x2=\"" + tx + "\" y1=\"" + coord(kPlotBottom) + "\" y2=\"" +
           coord(kPlotBottom + 4) + "\" stroke=\"#b8c0cc\" stroke-width=\"1\"/>";
    out += "<text x=\"" + tx + "\" y=\"" + coord(kPlotBottom + 17) + "\" text-anchor=\"middle\" fill=\"" + kAxisText +
           "\">" + html_escape(time_label(tick)) + "</text>\n";
  }
  out += "</g>\n";
  return out;
}

// The usual range of the nearest cluster, across the whole period: the
// band the job is measured against. A range of a single value still gets
// a visible sliver.
std::string SvgChart::usual_band() const {
  const double top = y(usual_->high);
  const double height = std::max(y(usual_->low) - top, 0.0);
  const double drawn = std::max(height, 2.0);
  const double drawn_top = top - (drawn - height) / 2;
  std::string out = "<g class=\"usual\">\n";
  out += "<rect class=\"band\" x=\"" + coord(kPlotLeft) + "\" y=\"" + coord(drawn_top) + "\" width=\"" +
         coord(kPlotRight - kPlotLeft) + "\" height=\"" + coord(drawn) + "\" fill=\"" + kBand +
         "\" fill-opacity=\"0.14\" data-low=\"" + coord(y(usual_->low)) + "\" data-high=\"" + coord(top) +
         "\"><title>" + html_escape("usual range: " + precise(usual_->low) + " to " + precise(usual_->high)) +
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
  return out;
}

// The workload's history: a line through the jobs in time order...
std::string SvgChart::history_line() const {
  std::string path;
  for (const Point& point : history_) {
    path += (path.empty() ? "M" : " L") + coord(x(point.time)) + " " + coord(y(point.value));
  }
  return "<path class=\"history\" d=\"" + path + "\" fill=\"none\" stroke=\"" + kLine +
         "\" stroke-width=\"1.5\" stroke-linejoin=\"round\"/>\n";
}

// ...and a dot per job while they are few enough to tell apart.
std::string SvgChart::history_dots() const {
  if (history_.size() > kMaxDots) return "";
  std::string out = "<g class=\"points\" fill=\"" + std::string(kDot) + "\">\n";
  for (const Point& point : history_) {
    out += "<circle class=\"point\" cx=\"" + coord(x(point.time)) + "\" cy=\"" + coord(y(point.value)) +
           "\" r=\"2.6\"><title>" + html_escape(local_date_time(point.time) + " \xC2\xB7 " + precise(point.value)) +
           "</title></circle>\n";
  }
  out += "</g>\n";
  return out;
}

// The anomalous job, with its value spelled out beside it.
std::string SvgChart::marks() const {
  std::string out;
  for (const Mark& mark : marks_) {
    out += "<circle class=\"mark mark-" + html_escape(mark.kind) + "\" cx=\"" + coord(x(mark.time)) + "\" cy=\"" +
           coord(y(mark.value)) + "\" r=\"4.5\" stroke=\"#fff\" stroke-width=\"1.5\"><title>" +
           html_escape(local_date_time(mark.time) + " \xC2\xB7 " + mark.label) + "</title></circle>\n";
  }
  return out;
}

std::string SvgChart::job_marker() const {
  const double cx = x(job_.time);
  const double cy = y(job_.value);
  std::string out = "<circle class=\"job\" cx=\"" + coord(cx) + "\" cy=\"" + coord(cy) + "\" r=\"5.5\" fill=\"" +
                    kJob + "\" stroke=\"#fff\" stroke-width=\"2\"><title>" +
                    html_escape(local_date_time(job_.time) + " \xC2\xB7 " + job_label_) + "</title></circle>\n";
  const bool left = cx > (kPlotLeft + kPlotRight) / 2;
  const double lx = left ? cx - 10 : cx + 10;
  const double ly = cy - 10 >= kPlotTop + 10 ? cy - 10 : cy + 19;
  out += "<text class=\"job-label\" x=\"" + coord(lx) + "\" y=\"" + coord(ly) + "\" text-anchor=\"" +
         (left ? "end" : "start") + "\" fill=\"" + kJob +
         "\" font-weight=\"600\" stroke=\"#fff\" stroke-width=\"4\" stroke-linejoin=\"round\" "
         "paint-order=\"stroke\">" +
         html_escape(job_label_) + "</text>\n";
  return out;
}
