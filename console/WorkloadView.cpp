#include "console/WorkloadView.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

#include "platform/LocalTime.h"
#include "operator/ErrorText.h"
#include "report/HtmlEscape.h"
#include "report/SvgChart.h"
#include "schema/ConsoleSql.h"
#include "storage/RecordCursor.h"
#include "storage/Statement.h"
#include "util/Text.h"
#include "util/TimeUnits.h"
#include "console/ConsolePages.h"
#include "console/UrlText.h"
#include "console/WhyFlagged.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

void bind_workload(Statement& st, const WorkloadValues& workload) {
  int index = 1;
  for (const std::string& value : workload) st.bind(index++, value);
}

std::vector<WorkloadAnomaly> anomalies_of(AnomalyStore& store, const WorkloadValues& workload, time_t since) {
  Statement st(store.database().handle, console_sql::kWorkloadAnomalies);
  bind_workload(st, workload);
  st.bind(9, static_cast<double>(since));
  st.bind(10, static_cast<double>(kMaxWorkloadAnomalies));
  std::vector<WorkloadAnomaly> found;
  store.database().visit_records_prepared(st, [&](const RecordCursor& cursor) {
    WorkloadAnomaly& a = found.emplace_back();
    a.id = cursor.text(0);
    a.detection_time = static_cast<time_t>(std::strtoll(cursor.text(1), nullptr, 10));
    a.job.backup_time = static_cast<time_t>(std::strtoll(cursor.text(2), nullptr, 10));
    for (int f = 0; f < kFeatureCount; ++f) a.job.features[f] = std::strtod(cursor.text(3 + f), nullptr);
    a.summary = text::capped(cursor.text(8), kMaxNameBytes);
    a.score = text::capped(cursor.text(9), kMaxNameBytes);
    a.state = state_from_number(std::strtoll(cursor.text(10), nullptr, 10));
  });
  return found;
}

// What the next pass would do with one pending job, in a sentence.
std::string next_pass_sentence(const Judgement& j) {
  if (j.unjudgeable != Judgement::Unjudgeable::no) {
    return "cannot be judged: " + j.cannot_judge + (j.hint.empty() ? "" : " (" + j.hint + ")");
  }
  return std::string("would be judged: ") + outcome_name(j.outcome) + " \xE2\x80\x94 " + j.reason;
}

void judge_pending(AnomalyStore& store, const std::string& path, WorkloadView& view, const ReplaySettings& settings) {
  Statement st(store.database().handle, console_sql::kWorkloadPending);
  bind_workload(st, view.workload);
  st.bind(9, static_cast<double>(kPendingJobsReplayed));
  std::vector<std::string> keys;
  store.database().visit_records_prepared(st, [&](const RecordCursor& cursor) {
    keys.emplace_back(cursor.text(0));
    view.pending = std::strtoll(cursor.text(1), nullptr, 10);
  });
  if (keys.empty()) return;
  if (store.rows_on_any_storage(view.workload) > kMaxReplayRows) {
    view.next_pass_note = "The workload's history is too large to replay its jobs here; run tsanomalyctl explain.";
    return;
  }
  for (const std::string& key : keys) {
    try {
      view.next_pass.emplace_back(key, next_pass_sentence(replay_judgement(path, key, settings)));
    } catch (const std::exception& e) {
      view.next_pass.emplace_back(key, "the replay failed: " + ErrorText::of(e));
    }
  }
}

}  // namespace

std::optional<WorkloadView> workload_view(const std::string& database_path, const std::string& anomaly_id, int days,
                                          const ReplaySettings& settings) {
  AnomalyStore store(database_path);
  const auto anomaly = store.find(anomaly_id);
  if (!anomaly) return std::nullopt;
  const auto workload = store.workload_of(anomaly->detection_key);
  if (!workload) return std::nullopt;
  WorkloadView view;
  view.workload = *workload;
  view.days = days;
  // The window ends at the workload's newest accepted job: a workload that
  // stopped backing up still shows its last year. Without any (a workload
  // new to its storage) there is no history to bound: every anomaly shows.
  const auto newest = store.newest_backup(view.workload);
  const time_t since = newest ? *newest - static_cast<time_t>(kSecondsPerDay) * days : std::numeric_limits<time_t>::min();
  {
    // One read transaction: the charts, the anomalies and the model agree.
    store.database().begin_transaction();
    view.history = store.sample_history(view.workload, since);
    view.anomalies = anomalies_of(store, view.workload, since);
    view.model = store.model_of(view.workload);
    store.database().commit_transaction();
  }
  judge_pending(store, database_path, view, settings);
  return view;
}

namespace {

std::string or_dash(const std::string& text) { return text.empty() ? "\xE2\x80\x94" : html_escape(text); }

std::string fact(const char* label, const std::string& escaped) {
  return "<div><dt>" + std::string(label) + "</dt><dd>" + escaped + "</dd></div>";
}

std::string workload_facts(const WorkloadValues& w) {
  static constexpr const char* kLabels[] = {"Client",        "Policy",        "Policy type", "Application",
                                            "Schedule type", "Schedule name", "Storage",     "Asset"};
  std::string out = "<dl class=\"facts\">";
  for (std::size_t i = 0; i < w.size(); ++i) out += fact(kLabels[i], "<code>" + or_dash(text::capped(w[i], kMaxNameBytes)) + "</code>");
  return out + "</dl>\n";
}

std::string model_section(const WorkloadView& view) {
  std::string out = "<h2>Model</h2><p class=\"model\">";
  if (view.model) {
    char eps[64];
    std::snprintf(eps, sizeof eps, "%.6g", view.model->first);
    out += "Eps <strong>" + std::string(eps) + "</strong>, calibrated " +
           html_escape(local_time_text(view.model->second)) + ".";
  } else {
    out += "Not calibrated yet: the next pass that judges one of its jobs calibrates it.";
  }
  return out + "</p>\n";
}

std::string next_pass_section(const WorkloadView& view) {
  std::string out = "<h2>The next pass</h2><p class=\"pending\" data-pending=\"" + std::to_string(view.pending) +
                    "\">" + std::to_string(view.pending) + (view.pending == 1 ? " job" : " jobs") +
                    " of this workload pending.</p>";
  if (!view.next_pass_note.empty()) out += "<p class=\"note\">" + html_escape(view.next_pass_note) + "</p>";
  if (view.next_pass.empty()) return out + "\n";
  out += "<ul class=\"next-pass\">";
  for (const auto& [key, sentence] : view.next_pass) {
    out += "<li><code>" + html_escape(text::capped(key, kMaxNameBytes)) + "</code> " + html_escape(sentence) + "</li>";
  }
  return out + "</ul>\n";
}

std::string feature_chart(const FeatureInfo& info, const WorkloadView& view) {
  std::vector<SvgChart::Point> points;
  points.reserve(view.history.points.size());
  for (const HistoryPoint& p : view.history.points) points.push_back({p.backup_time, p.features[info.feature]});
  std::vector<SvgChart::Mark> marks;
  for (const WorkloadAnomaly& a : view.anomalies) {
    marks.push_back({a.job.backup_time, a.job.features[info.feature],
                     "anomaly " + a.id + " \xC2\xB7 " + state_info(a.state).label, state_info(a.state).slug});
  }
  const time_t latest = points.empty() ? (marks.empty() ? 0 : marks.front().time) : points.back().time;
  const SvgChart chart(info.unit, std::move(points), {latest, std::numeric_limits<double>::quiet_NaN()}, std::nullopt,
                       std::to_string(view.anomalies.size()) + " anomalies marked", info.title, std::move(marks));
  return "<section class=\"feature\" data-feature=\"" + std::string(info.column) + "\"><h3>" + info.title + "</h3>" +
         chart.svg() + "</section>\n";
}

std::string anomalies_table(const WorkloadView& view) {
  if (view.anomalies.empty()) return "<p class=\"note\">No anomaly of this workload in this window.</p>\n";
  std::string out = "<table class=\"anomalies\"><thead><tr><th>Detected</th><th>Out of range</th><th>Score</th>"
                    "<th>Verdict</th></tr></thead><tbody>\n";
  for (const WorkloadAnomaly& a : view.anomalies) {
    const AnomalyStateInfo& state = state_info(a.state);
    out += "<tr data-anomaly-id=\"" + html_escape(a.id) + "\"><td data-label=\"Detected\"><a href=\"" +
           html_escape(anomaly_path(a.id)) + "\">" + html_escape(local_time_text(a.detection_time)) +
           "</a></td><td data-label=\"Out of range\">" + or_dash(a.summary) + "</td><td class=\"score\" "
           "data-label=\"Score\">" + or_dash(a.score) + "</td><td data-label=\"Verdict\"><span class=\"state state-" +
           state.slug + "\">" + state.label + "</span></td></tr>\n";
  }
  return out + "</tbody></table>\n";
}

}  // namespace

std::string workload_page(const WorkloadView& view) {
  const WorkloadValues& w = view.workload;
  std::string body = "<p><a href=\"/\">\xE2\x86\x90 All anomalies</a></p>\n<header class=\"top\"><h1>Workload " +
                     or_dash(text::capped(w[0], kMaxNameBytes)) + " \xC2\xB7 " +
                     or_dash(text::capped(w[1], kMaxNameBytes)) + "</h1><p class=\"meta\">The last " +
                     std::to_string(view.days) + " days: " + std::to_string(view.history.jobs) + " accepted jobs" +
                     (view.history.averaged ? ", drawn as " + std::to_string(view.history.points.size()) +
                                                  " means of equal time slices"
                                            : std::string()) +
                     "; " + std::to_string(view.anomalies.size()) + " anomalies.</p></header>\n";
  body += workload_facts(w);
  body += model_section(view) + next_pass_section(view);
  body += "<h2>History</h2><div class=\"legend\"><span class=\"l-history\">accepted jobs</span>"
          "<span class=\"m-open\">open</span><span class=\"m-acknowledged\">acknowledged</span>"
          "<span class=\"m-false-positive-waiting\">false positive, waiting</span>"
          "<span class=\"m-false-positive-learned\">false positive, learned</span></div>\n<div class=\"features\">\n";
  for (const FeatureInfo& info : kFeatures) body += feature_chart(info, view);
  body += "</div>\n<h2>Anomalies</h2>\n" + anomalies_table(view);
  return console_pages::layout("Workload " + text::capped(w[0], kMaxNameBytes), body);
}
