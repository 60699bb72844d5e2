// HtmlReport: the page that tsanomalyctl report writes: one self-contained
// HTML document (inline CSS and SVG, no scripts, nothing fetched) with a
// summary of every reported anomaly and one card per anomaly, newest first.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "operator/AnomalyStore.h"
#include "report/SvgChart.h"

class HtmlReport {
 public:
  HtmlReport(std::string database_path, time_t generated_at);

  // The header's figures; they count every anomaly given here, also those
  // left without a card by the limit.
  void summarise(const std::vector<AnomalyRecord>& all);
  // Cards appear in the order they are added.
  void add_card(const AnomalyRecord& anomaly, const WorkloadHistory& history);
  std::string html() const;

  // The chart of one payload attribute ("anomalyImageSize", ...) against the
  // workload's history, its band taken from the attribute text. None for an
  // unknown attribute, a job no longer in the queue or an empty history.
  static std::optional<SvgChart> chart_for(const std::string& member, const std::string& text,
                                           const WorkloadHistory& history);

  // One anomaly's card (client, detection time relative to now, score,
  // kinds, facts, a chart per feature out of range), for any page that
  // carries stylesheet().
  static std::string card(const AnomalyRecord& anomaly, const WorkloadHistory& history, time_t now);
  // The CSS of the report's summary tiles, legend and cards.
  static const char* stylesheet();

 private:
  std::string page_head() const;
  std::string summary_tiles() const;
  std::string findings() const;

  std::string database_path_;
  time_t generated_at_;
  std::size_t total_ = 0;
  std::size_t clients_ = 0;
  std::size_t last_day_ = 0;
  std::size_t last_week_ = 0;
  std::string top_kind_;
  std::size_t top_kind_count_ = 0;
  std::size_t card_count_ = 0;
  std::string cards_;
};
