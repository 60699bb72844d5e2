// SvgChart: one inline SVG chart of a workload's history for one feature, the
// nearest cluster's usual range shaded as a band, the anomalous job in red.
// Values come in the stored unit (KB, files, s); axes read MB, GB, min.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "contract/Features.h"

class SvgChart {
 public:
  // The unit values are stored in, as the feature catalogue gives it.
  using Unit = FeatureUnit;

  struct Point {
    time_t time = 0;
    double value = 0;
  };
  struct Range {
    double low = 0;
    double high = 0;
  };
  // A marked moment besides the job: e.g. each anomaly of a workload. kind
  // names its class ("mark mark-<kind>"), which the page's stylesheet colours.
  struct Mark {
    time_t time = 0;
    double value = 0;
    std::string label;
    std::string kind;
  };

  // The drawing area, in SVG user units; the page scales it to its width.
  static constexpr double kWidth = 640;
  static constexpr double kHeight = 210;
  static constexpr double kPlotLeft = 70;
  static constexpr double kPlotRight = kWidth - 18;
  static constexpr double kPlotTop = 14;
  static constexpr double kPlotBottom = kHeight - 30;
  // Beyond this many jobs the history is drawn as a line only: thousands of
  // dots would make a long report sluggish and add nothing to the picture.
  static constexpr std::size_t kMaxDots = 150;

  // history: the workload's accepted jobs, oldest first. usual: the band, or
  // none when the range is unknown. job_label: the text beside the red dot.
  // A job whose value is not finite is not drawn; its time still bounds the
  // time axis. marks: drawn over the history, inside the axes.
  SvgChart(Unit unit, std::vector<Point> history, Point job, std::optional<Range> usual, std::string job_label,
           std::string title, std::vector<Mark> marks = {});

  // The <svg> element, ready to be placed in an HTML page.
  std::string svg() const;

  // Where a moment and a stored value land in the drawing.
  double x(time_t t) const;
  double y(double value) const;

  const std::optional<Range>& usual() const { return usual_; }
  const std::vector<double>& value_ticks() const { return value_ticks_; }  // stored unit
  const std::vector<time_t>& time_ticks() const { return time_ticks_; }
  // An axis label for a stored value, e.g. "1.5 GB", "12 min", "4,500".
  std::string value_label(double value) const;
  // A date label for an axis tick, in local time: "Mar 5", "14:00", "Mar 2024".
  std::string time_label(time_t t) const;
  // The readable unit the value axis uses ("MB", "GB", "min", "" for counts).
  const std::string& axis_unit() const { return axis_unit_; }

 private:
  void choose_value_axis();
  std::pair<double, double> value_extent() const;
  void choose_value_unit(double magnitude);
  void place_value_ticks(double low, double high);
  void choose_time_axis();
  void pad_time_range();
  void choose_time_step();
  struct tm first_tick_parts() const;
  void place_time_ticks(struct tm parts);

  // The drawing's parts, in the order they are painted.
  std::string opening_tag() const;
  std::string value_grid() const;
  std::string time_axis() const;
  std::string usual_band() const;
  std::string history_line() const;
  std::string history_dots() const;
  std::string job_marker() const;
  std::string marks() const;
  std::string precise(double value) const;

  Unit unit_;
  std::vector<Point> history_;
  Point job_;
  std::optional<Range> usual_;
  std::string job_label_;
  std::string title_;
  std::vector<Mark> marks_;

  // Stored value = axis value * scale_.
  double scale_ = 1;
  std::string axis_unit_;
  int decimals_ = 0;
  double value_min_ = 0, value_max_ = 1;
  std::vector<double> value_ticks_;

  time_t time_min_ = 0, time_max_ = 1;
  enum class TimeStep { Hours, Days, Months } time_step_kind_ = TimeStep::Days;
  int time_step_ = 1;
  std::vector<time_t> time_ticks_;
};
