// SvgChart's axes: the value range, unit and ticks, the time range and
// ticks, and their labels.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "report/SvgChart.h"
#include "report/SvgChartText.h"

using svg_chart_text::grouped;
using svg_chart_text::local_parts;
using svg_chart_text::number;

namespace {

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

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

// Sizes, counts and durations read best from zero unless the data sit far
// above it, where a zero-based axis would squash them into a flat line. A
// flat range is widened, and a little headroom keeps the highest and lowest
// dots off the frame.
void pad_value_range(double& low, double& high) {
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
  const double headroom = (high - low) * 0.05;
  high += headroom;
  if (low != 0) low -= headroom;
}

}  // namespace

void SvgChart::choose_value_axis() {
  auto [low, high] = value_extent();
  choose_value_unit(std::max(std::fabs(low), std::fabs(high)));
  low /= scale_;
  high /= scale_;
  pad_value_range(low, high);
  place_value_ticks(low, high);
}

// The lowest and highest of everything drawn: history, job and band.
std::pair<double, double> SvgChart::value_extent() const {
  std::vector<double> values;
  for (const Point& point : history_) values.push_back(point.value);
  if (std::isfinite(job_.value)) values.push_back(job_.value);
  for (const Mark& mark : marks_) values.push_back(mark.value);
  if (usual_) {
    values.push_back(usual_->low);
    values.push_back(usual_->high);
  }
  const double low = values.empty() ? 0 : *std::min_element(values.begin(), values.end());
  const double high = values.empty() ? 1 : *std::max_element(values.begin(), values.end());
  return {low, high};
}

// The readable unit for values up to magnitude, in the stored unit.
void SvgChart::choose_value_unit(double magnitude) {
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
}

// About four round steps from low to high (in axis units); the axis ends on
// whole steps.
void SvgChart::place_value_ticks(double low, double high) {
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
  pad_time_range();
  choose_time_step();
  place_time_ticks(first_tick_parts());
}

// From the first job to the last, plus a margin (half a day either side of
// a single moment).
void SvgChart::pad_time_range() {
  time_t first = job_.time, last = job_.time;
  for (const Point& point : history_) {
    first = std::min(first, point.time);
    last = std::max(last, point.time);
  }
  for (const Mark& mark : marks_) {
    first = std::min(first, mark.time);
    last = std::max(last, mark.time);
  }
  const double span = static_cast<double>(last - first);
  const time_t pad = span == 0 ? 12 * 3600 : static_cast<time_t>(std::max(span * 0.04, 1800.0));
  time_min_ = first - pad;
  time_max_ = last + pad;
}

// The smallest calendar step that gives at most six labels.
void SvgChart::choose_time_step() {
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
  const double width = static_cast<double>(time_max_ - time_min_);
  const Candidate* chosen = &candidates[std::size(candidates) - 1];
  for (const Candidate& candidate : candidates) {
    if (width / candidate.seconds <= 6) {
      chosen = &candidate;
      break;
    }
  }
  time_step_kind_ = chosen->kind;
  time_step_ = chosen->step;
}

// Ticks fall on round local times: whole hours, midnights (Mondays for
// weekly steps), the first of a month. This is the round time at or before
// the start of the axis.
struct tm SvgChart::first_tick_parts() const {
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
  return parts;
}

// Steps in calendar fields, normalised by mktime, not in seconds: a monthly
// tick lands on the first of the next month whatever the month's length.
void SvgChart::place_time_ticks(struct tm parts) {
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

