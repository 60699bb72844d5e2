// tsanomalyctl report, in process: the page's content and escaping, the
// charts' band and marker geometry, the summary figures and the error exits.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "schema/AnomalySchema.h"
#include "service/DetectionService.h"
#include "storage/Statement.h"
#include "tests/support/RowWriter.h"
#include "tests/support/TempDir.h"
#include "report/HtmlEscape.h"
#include "report/HtmlReport.h"
#include "cli/ReportCommand.h"
#include "report/SvgChart.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using tsanomaly_test::TempDir;

namespace {

constexpr time_t kDay = 86400;
// 2023-11-14 22:13:20 UTC, a Tuesday.
constexpr time_t kNow = 1700000000;

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
  return count;
}

// The value of a numeric attribute of the first element that carries
// marker (e.g. class="band"), or NaN.
double attribute(const std::string& svg, const std::string& marker, const std::string& name) {
  const auto element = svg.find(marker);
  if (element == std::string::npos) return std::nan("");
  const auto open = svg.rfind('<', element);
  const auto close = svg.find('>', element);
  const std::string tag = svg.substr(open, close - open);
  const std::string key = " " + name + "=\"";
  const auto at = tag.find(key);
  if (at == std::string::npos) return std::nan("");
  return std::strtod(tag.c_str() + at + key.size(), nullptr);
}

// The text between the end of the first `before` after position `from` and
// the next `after`, or "" when there is none.
std::string between(const std::string& text, const std::string& before, const std::string& after,
                    std::size_t from = 0) {
  const auto start = text.find(before, from);
  if (start == std::string::npos) return "";
  const auto end = text.find(after, start + before.size());
  if (end == std::string::npos) return "";
  return text.substr(start + before.size(), end - start - before.size());
}

// The "value" text of a summary tile, e.g. tile_value(page, "day").
std::string tile_value(const std::string& page, const std::string& tile) {
  const auto at = page.find("<div class=\"tile " + tile + "\">");
  if (at == std::string::npos) return "<no tile " + tile + ">";
  return between(page, "<div class=\"value\">", "</div>", at);
}

std::vector<std::string> card_ids(const std::string& page) {
  static const std::string kCard = "<article class=\"card\" data-anomaly-id=\"";
  std::vector<std::string> ids;
  for (auto at = page.find(kCard); at != std::string::npos; at = page.find(kCard, at + 1)) {
    ids.push_back(between(page, kCard, "\"", at));
  }
  return ids;
}

class UtcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    saved_tz_ = tz != nullptr ? std::optional<std::string>(tz) : std::nullopt;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (saved_tz_) {
      setenv("TZ", saved_tz_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> saved_tz_;
};

// ---------------------------------------------------------------------------
// Escaping and attribute texts

TEST(HtmlReportEscape, MarkupCharactersBecomeEntities) {
  EXPECT_EQ(html_escape("O'Brien & <Sons> \"HQ\""), "O&#39;Brien &amp; &lt;Sons&gt; &quot;HQ&quot;");
  EXPECT_EQ(html_escape("&amp;"), "&amp;amp;");
}

TEST(HtmlReportEscape, MultiByteUtf8PassesUnchanged) {
  const std::string text = "Z\xC3\xBCrich-\xE6\x9D\xB1\xE4\xBA\xAC-\xF0\x9F\x98\x80";  // Zürich-東京-😀
  EXPECT_EQ(html_escape(text), text);
}

TEST(HtmlReportEscape, BrokenUtf8AndControlCharactersBecomeReplacementCharacters) {
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(html_escape("a\xFFz"), "a" + fffd + "z");
  EXPECT_EQ(html_escape("cut\xC3"), "cut" + fffd);
  EXPECT_EQ(html_escape("\xC0\xAF"), fffd + fffd);              // overlong '/'
  EXPECT_EQ(html_escape("\xED\xA0\x80"), fffd + fffd + fffd);  // a UTF-16 surrogate
  EXPECT_EQ(html_escape(std::string("a\x01") + '\0' + "b"), "a" + fffd + fffd + "b");
  EXPECT_EQ(html_escape("tab\there\nnew line"), "tab\there\nnew line");
}

TEST(HtmlReportEscape, BidiOverridesAndFormatCharactersBecomeVisibleCodePoints) {
  // Raw, U+202E would show the client "srv-\u202egpj.exe" as "srv-exe.jpg".
  EXPECT_EQ(html_escape("srv-\xE2\x80\xAEgpj.exe"), "srv-\\u202egpj.exe");
  EXPECT_EQ(html_escape("\xE2\x81\xA7rtl\xE2\x81\xA9 \xE2\x80\x8Bhidden\xEF\xBB\xBF"),
            "\\u2067rtl\\u2069 \\u200bhidden\\ufeff");
  EXPECT_EQ(html_escape("one\xE2\x80\xA8two\xE2\x80\xA9"), "one\\u2028two\\u2029");
}

// ---------------------------------------------------------------------------
// Chart geometry

class SvgChartTest : public UtcTest {
 protected:
  // Ten daily jobs of 1000..1180 MB, the job a day later at 1536 MB.
  static std::vector<SvgChart::Point> sizes() {
    std::vector<SvgChart::Point> points;
    for (int i = 0; i < 10; ++i) points.push_back({kNow - (10 - i) * kDay, (1000.0 + 20 * i) * 1024});
    return points;
  }
  static SvgChart size_chart() {
    return SvgChart(SvgChart::Unit::Kilobytes, sizes(), {kNow, 1536.0 * 1024}, SvgChart::Range{1000.0 * 1024, 1200.5 * 1024},
                    "this job: 1536.00 MB", "Image size");
  }
};

TEST_F(SvgChartTest, BandSpansTheUsualRangeAcrossThePlot) {
  const SvgChart chart = size_chart();
  const std::string svg = chart.svg();
  ASSERT_EQ(occurrences(svg, "class=\"band\""), 1u);
  EXPECT_NEAR(attribute(svg, "class=\"band\"", "y"), chart.y(1200.5 * 1024), 0.06);
  EXPECT_NEAR(attribute(svg, "class=\"band\"", "height"), chart.y(1000.0 * 1024) - chart.y(1200.5 * 1024), 0.11);
  EXPECT_NEAR(attribute(svg, "class=\"band\"", "x"), SvgChart::kPlotLeft, 0.06);
  EXPECT_NEAR(attribute(svg, "class=\"band\"", "width"), SvgChart::kPlotRight - SvgChart::kPlotLeft, 0.06);
  // Larger values are higher up, and the range is a real stripe.
  EXPECT_GT(chart.y(1000.0 * 1024) - chart.y(1200.5 * 1024), 10);
}

TEST_F(SvgChartTest, JobIsMarkedWhereItsValueAndTimeAre) {
  const SvgChart chart = size_chart();
  const std::string svg = chart.svg();
  ASSERT_EQ(occurrences(svg, "class=\"job\""), 1u);
  EXPECT_NEAR(attribute(svg, "class=\"job\"", "cx"), chart.x(kNow), 0.06);
  EXPECT_NEAR(attribute(svg, "class=\"job\"", "cy"), chart.y(1536.0 * 1024), 0.06);
  EXPECT_NE(svg.find("fill=\"#d93025\""), std::string::npos);
  // Above the band, at the right: the newest job.
  EXPECT_LT(attribute(svg, "class=\"job\"", "cy"), attribute(svg, "class=\"band\"", "y"));
  EXPECT_GT(chart.x(kNow), chart.x(kNow - kDay));
  EXPECT_NE(svg.find(">this job: 1536.00 MB</text>"), std::string::npos);
  // The label sits left of a dot in the right half, so it stays in view.
  EXPECT_LT(attribute(svg, "class=\"job-label\"", "x"), attribute(svg, "class=\"job\"", "cx"));
}

TEST_F(SvgChartTest, EveryHistoryJobIsADotInsideThePlot) {
  const SvgChart chart = size_chart();
  const std::string svg = chart.svg();
  EXPECT_EQ(occurrences(svg, "class=\"point\""), 10u);
  for (const SvgChart::Point& point : sizes()) {
    EXPECT_GE(chart.x(point.time), SvgChart::kPlotLeft);
    EXPECT_LE(chart.x(point.time), SvgChart::kPlotRight);
    EXPECT_GE(chart.y(point.value), SvgChart::kPlotTop);
    EXPECT_LE(chart.y(point.value), SvgChart::kPlotBottom);
  }
  EXPECT_NEAR(attribute(svg, "class=\"point\"", "cx"), chart.x(sizes()[0].time), 0.06);
  EXPECT_NEAR(attribute(svg, "class=\"point\"", "cy"), chart.y(sizes()[0].value), 0.06);
}

TEST_F(SvgChartTest, SizesAreLabelledInGigabytesOnceTheyPassOne) {
  const SvgChart chart = size_chart();
  EXPECT_EQ(chart.axis_unit(), "GB");
  EXPECT_EQ(chart.value_label(1024.0 * 1024), "1.0 GB");
  EXPECT_NE(chart.svg().find(">1.2 GB</text>"), std::string::npos);
  // Every value lies between the first and the last tick; with all sizes
  // near 1 GB the axis does not waste its height on the way up from zero.
  ASSERT_GE(chart.value_ticks().size(), 3u);
  EXPECT_GT(chart.value_ticks().front(), 0);
  EXPECT_LE(chart.value_ticks().front(), 1000.0 * 1024);
  EXPECT_GE(chart.value_ticks().back(), 1536.0 * 1024);

  const SvgChart small(SvgChart::Unit::Kilobytes, {{kNow - kDay, 300 * 1024}}, {kNow, 900 * 1024}, std::nullopt,
                       "this job: 900.00 MB", "Image size");
  EXPECT_EQ(small.axis_unit(), "MB");
  EXPECT_EQ(small.value_label(400 * 1024), "400 MB");
}

TEST_F(SvgChartTest, DurationsInMinutesCountsGroupedRatiosPlain) {
  const SvgChart time(SvgChart::Unit::Seconds, {{kNow - kDay, 600}, {kNow - 2 * kDay, 700}}, {kNow, 6000},
                      SvgChart::Range{600, 700}, "this job: 6000 s", "Time taken");
  EXPECT_EQ(time.axis_unit(), "min");
  EXPECT_EQ(time.value_label(6000), "100 min");

  const SvgChart files(SvgChart::Unit::Count, {{kNow - kDay, 4000}, {kNow - 2 * kDay, 4500}}, {kNow, 5120},
                       SvgChart::Range{4000, 4500}, "this job: 5120 files", "Backup files");
  EXPECT_EQ(files.axis_unit(), "");
  EXPECT_EQ(files.value_label(4000), "4,000");
  // Far above zero, the axis does not start at zero.
  EXPECT_GT(files.value_ticks().front(), 0);
  EXPECT_LE(files.value_ticks().front(), 4000);

  const SvgChart ratio(SvgChart::Unit::Ratio, {{kNow - kDay, 10.25}, {kNow - 2 * kDay, 12.3457}}, {kNow, 3.5},
                       SvgChart::Range{10.25, 12.3457}, "this job: 3.5", "Deduplication ratio");
  EXPECT_EQ(ratio.value_label(10), "10");
  EXPECT_EQ(ratio.value_ticks().front(), 0);
}

TEST_F(SvgChartTest, DateTicksFallOnLocalMondaysWithReadableLabels) {
  // Nov 1 .. Nov 20, 2023, one job a day: weekly ticks.
  std::vector<SvgChart::Point> points;
  const time_t nov1 = 1698796800;  // 2023-11-01 00:00:00 UTC
  for (int i = 0; i < 19; ++i) points.push_back({nov1 + i * kDay + 3600, 100});
  const SvgChart chart(SvgChart::Unit::Count, points, {nov1 + 19 * kDay + 3600, 500}, SvgChart::Range{100, 100},
                       "this job: 500 files", "Backup files");
  std::vector<std::string> labels;
  for (const time_t tick : chart.time_ticks()) labels.push_back(chart.time_label(tick));
  EXPECT_EQ(labels, (std::vector<std::string>{"Nov 6, 2023", "Nov 13", "Nov 20"}));
  const std::string svg = chart.svg();
  for (const std::string& label : labels) EXPECT_NE(svg.find(">" + label + "</text>"), std::string::npos) << label;
  for (const time_t tick : chart.time_ticks()) {
    EXPECT_GT(chart.x(tick), SvgChart::kPlotLeft);
    EXPECT_LT(chart.x(tick), SvgChart::kPlotRight);
  }
}

TEST_F(SvgChartTest, LongHistoriesGetMonthTicksAndNoDots) {
  std::vector<SvgChart::Point> points;
  for (int i = 0; i < 400; ++i) points.push_back({kNow - (400 - i) * kDay, 100.0 + i % 7});
  const SvgChart chart(SvgChart::Unit::Count, points, {kNow, 900}, SvgChart::Range{100, 106}, "this job: 900 files",
                       "Backup files");
  ASSERT_GE(chart.time_ticks().size(), 3u);
  EXPECT_LE(chart.time_ticks().size(), 7u);
  // "Mon YYYY" labels, e.g. "Oct 2022".
  for (const time_t tick : chart.time_ticks()) {
    const std::string label = chart.time_label(tick);
    EXPECT_EQ(label.size(), 8u) << label;
    EXPECT_EQ(label.find(' '), 3u) << label;
    EXPECT_EQ(label.rfind("20", 4), 4u) << label;
  }
  const std::string svg = chart.svg();
  EXPECT_EQ(occurrences(svg, "class=\"point\""), 0u);
  EXPECT_EQ(occurrences(svg, "class=\"history\""), 1u);
}

TEST_F(SvgChartTest, DegenerateInputStillDraws) {
  // One job, one history job at the same time and value, a one-value band.
  const SvgChart chart(SvgChart::Unit::Ratio, {{kNow, 2}}, {kNow, 2}, SvgChart::Range{2, 2}, "this job: 2",
                       "Deduplication ratio");
  const std::string svg = chart.svg();
  EXPECT_GE(attribute(svg, "class=\"band\"", "height"), 2.0);
  EXPECT_TRUE(std::isfinite(attribute(svg, "class=\"job\"", "cx")));
  EXPECT_TRUE(std::isfinite(attribute(svg, "class=\"job\"", "cy")));
  EXPECT_FALSE(chart.time_ticks().empty());

  const SvgChart no_band(SvgChart::Unit::Count, {}, {kNow, 7}, std::nullopt, "this job: 7 files", "Backup files");
  EXPECT_EQ(no_band.svg().find("class=\"band\""), std::string::npos);
  EXPECT_NE(no_band.svg().find("class=\"job\""), std::string::npos);
}

TEST_F(SvgChartTest, LabelsFromTheDatabaseAreEscaped) {
  const SvgChart chart(SvgChart::Unit::Count, {{kNow - kDay, 1}}, {kNow, 9}, std::nullopt, "this job: <9> & \"more\"",
                       "Backup files");
  const std::string svg = chart.svg();
  EXPECT_NE(svg.find("this job: &lt;9&gt; &amp; &quot;more&quot;"), std::string::npos);
  EXPECT_EQ(svg.find("<9>"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Page building

AnomalyRecord record(const std::string& id, const std::string& client, time_t detected, const std::string& summary) {
  AnomalyRecord r;
  r.id = id;
  r.client = client;
  r.detection_time = detected;
  r.summary = summary;
  r.score = "3.27";
  r.policy = "p1";
  return r;
}

class HtmlReportTest : public UtcTest {};

TEST_F(HtmlReportTest, SizeChartBandIsTheUsualRangeConvertedToKilobytes) {
  WorkloadHistory history;
  history.job_found = true;
  history.job = {kNow, 100, 1536.0 * 1024, 0, 0, 0};
  for (int i = 1; i <= 5; ++i) history.history.push_back({kNow - i * kDay, 100, 1100.0 * 1024, 0, 0, 0});
  const auto chart =
      HtmlReport::chart_for("anomalyImageSize", "1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)", history);
  ASSERT_TRUE(chart);
  ASSERT_TRUE(chart->usual());
  EXPECT_DOUBLE_EQ(chart->usual()->low, 1000.0 * 1024);
  EXPECT_DOUBLE_EQ(chart->usual()->high, 1200.5 * 1024);
  const std::string svg = chart->svg();
  EXPECT_NE(svg.find(">this job: 1536.00 MB</text>"), std::string::npos);
  EXPECT_NEAR(attribute(svg, "class=\"job\"", "cy"), chart->y(1536.0 * 1024), 0.06);

  // Counts and durations are charted as written; time gets its unit.
  const auto files = HtmlReport::chart_for("anomalyBackupFilesCount", "5120 (Usual: 4000 - 4500)", history);
  ASSERT_TRUE(files && files->usual());
  EXPECT_DOUBLE_EQ(files->usual()->high, 4500);
  const auto time = HtmlReport::chart_for("anomalyTimeTaken", "6000 (Usual: 500 - 700)", history);
  ASSERT_TRUE(time);
  EXPECT_NE(time->svg().find(">this job: 6000 s</text>"), std::string::npos);
  // No members, no band.
  const auto none = HtmlReport::chart_for("anomalyBackupFilesCount", "100 (Usual: -1 - -1)", history);
  ASSERT_TRUE(none);
  EXPECT_FALSE(none->usual());
}

TEST_F(HtmlReportTest, NoChartWithoutTheJobOrItsHistory) {
  WorkloadHistory gone;
  EXPECT_FALSE(HtmlReport::chart_for("anomalyImageSize", "1.00 MB (Usual: 2.00 MB - 3.00 MB)", gone));
  WorkloadHistory lonely;
  lonely.job_found = true;
  EXPECT_FALSE(HtmlReport::chart_for("anomalyImageSize", "1.00 MB (Usual: 2.00 MB - 3.00 MB)", lonely));
  lonely.history.push_back({kNow - kDay, 1, 1, 1, 1, 1});
  EXPECT_FALSE(HtmlReport::chart_for("anomalySomethingElse", "1 (Usual: 2 - 3)", lonely));
  EXPECT_TRUE(HtmlReport::chart_for("anomalyDeduplicationRatio", "1 (Usual: 2 - 3)", lonely));
}

TEST_F(HtmlReportTest, SummaryCountsEveryAnomalyByRecencyClientAndKind) {
  HtmlReport report("/var/db/anomaly.db", kNow);
  const std::vector<AnomalyRecord> all = {
      record("1_1", "alpha", kNow - 3600, "Anomaly image size,Backup files count"),
      record("2_1", "beta", kNow - 2 * kDay, "Backup files count"),
      record("3_1", "alpha", kNow - 10 * kDay, "Backup files count,Total time"),
      record("4_1", "gamma", kNow - kDay + 1, "Anomaly image size")};
  report.summarise(all);
  report.add_card(all[0], {});
  const std::string page = report.html();
  EXPECT_EQ(tile_value(page, "total"), "4");
  EXPECT_EQ(tile_value(page, "clients"), "3");
  EXPECT_EQ(tile_value(page, "day"), "2");
  EXPECT_EQ(tile_value(page, "week"), "3");
  EXPECT_EQ(tile_value(page, "kind"), "Backup files count");
  EXPECT_NE(page.find("in 3 of 4 anomalies"), std::string::npos);
  EXPECT_NE(page.find("Showing the newest 1 of 4 anomalies."), std::string::npos);
  EXPECT_NE(page.find("<code class=\"database\">/var/db/anomaly.db</code>"), std::string::npos);
  EXPECT_NE(page.find("<time class=\"generated\">2023-11-14 22:13:20</time> UTC"), std::string::npos);
}

TEST_F(HtmlReportTest, CardShowsTheAnomalysFactsWithLocalTime) {
  AnomalyRecord r = record("4711_1600000000", "web01", kNow - 2 * 3600, "Anomaly image size,Backup files count");
  r.policy_type = "Standard";
  r.schedule_name = "daily";
  r.storage_name = "stu1";
  r.attributes = {{"anomalyImageSize", "1536.00 MB (Usual: 1000.00 MB - 1200.50 MB)"},
                  {"anomalyBackupFilesCount", "5120 (Usual: 4000 - 4500)"}};
  HtmlReport report("anomaly.db", kNow);
  report.summarise({r});
  report.add_card(r, {});
  const std::string page = report.html();
  EXPECT_EQ(card_ids(page), std::vector<std::string>{"4711_1600000000"});
  for (const char* expected :
       {"<h2 class=\"client\">web01</h2>", "<dt>Policy</dt><dd>p1</dd>", "<dt>Policy type</dt><dd>Standard</dd>",
        "<dt>Schedule</dt><dd>daily</dd>", "<dt>Storage</dt><dd>stu1</dd>", "<time>2023-11-14 20:13:20</time>",
        "2 hours ago", "Score 3.27", "<li>Anomaly image size</li>", "<li>Backup files count</li>",
        "<span class=\"now\">1536.00 MB</span>", "usual 1000.00 MB \xE2\x80\x93 1200.50 MB",
        "28% above the usual range", "<span class=\"now\">5120 files</span>"}) {
    EXPECT_NE(page.find(expected), std::string::npos) << expected;
  }
  // The job is not in the queue: a note, no chart.
  EXPECT_NE(page.find("no longer in the detection queue"), std::string::npos);
  EXPECT_EQ(occurrences(page, "<svg"), 0u);
  EXPECT_EQ(occurrences(page, "class=\"feature\""), 2u);
}

TEST_F(HtmlReportTest, TextFromTheDatabaseIsEscapedEverywhere) {
  const std::string client = "<script>alert(\"x\")</script> & O'Hara \xE6\x9D\xB1\xE4\xBA\xAC";
  AnomalyRecord r = record("1_<b>", client, kNow, "<i>Backup files count</i>");
  r.policy = "p\"1\"";
  r.attributes = {{"anomalyBackupFilesCount", "<img src=x> (Usual: 1 - 2)"}};
  HtmlReport report("/tmp/<db>&.sqlite", kNow);
  report.summarise({r});
  report.add_card(r, {});
  const std::string page = report.html();
  EXPECT_EQ(page.find("<script"), std::string::npos);
  EXPECT_EQ(page.find("<b>"), std::string::npos);
  EXPECT_EQ(page.find("<i>"), std::string::npos);
  EXPECT_EQ(page.find("<img"), std::string::npos);
  EXPECT_EQ(page.find("<db>"), std::string::npos);
  EXPECT_NE(page.find("&lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt; &amp; O&#39;Hara \xE6\x9D\xB1\xE4\xBA\xAC"),
            std::string::npos);
  EXPECT_NE(page.find("data-anomaly-id=\"1_&lt;b&gt;\""), std::string::npos);
  EXPECT_NE(page.find("<dd>p&quot;1&quot;</dd>"), std::string::npos);
  EXPECT_NE(page.find("/tmp/&lt;db&gt;&amp;.sqlite"), std::string::npos);
}

TEST_F(HtmlReportTest, EmptyDatabaseGivesACompletePageSayingSo) {
  HtmlReport report("anomaly.db", kNow);
  report.summarise({});
  const std::string page = report.html();
  EXPECT_EQ(page.rfind("<!DOCTYPE html>", 0), 0u);
  EXPECT_NE(page.find("</html>"), std::string::npos);
  EXPECT_NE(page.find("No anomalies reported"), std::string::npos);
  EXPECT_EQ(tile_value(page, "total"), "0");
  EXPECT_EQ(tile_value(page, "kind"), "\xE2\x80\x94");
  EXPECT_EQ(occurrences(page, "class=\"card\""), 0u);
}

TEST_F(HtmlReportTest, PageFetchesNothingAndRunsNoScript) {
  HtmlReport report("anomaly.db", kNow);
  AnomalyRecord r = record("1_1", "c1", kNow, "Backup files count");
  r.attributes = {{"anomalyBackupFilesCount", "5120 (Usual: 4000 - 4500)"}};
  WorkloadHistory history;
  history.job_found = true;
  history.job = {kNow, 5120, 0, 0, 0, 0};
  history.history = {{kNow - kDay, 4000, 0, 0, 0, 0}, {kNow - 2 * kDay, 4500, 0, 0, 0, 0}};
  report.summarise({r});
  report.add_card(r, history);
  const std::string page = report.html();
  EXPECT_EQ(occurrences(page, "<svg class=\"chart\""), 1u);
  for (const char* forbidden : {"<script", "<link", "src=", "@import", "url(", "http://www.w3.org/1999", "https:"}) {
    EXPECT_EQ(page.find(forbidden), std::string::npos) << forbidden;
  }
}

// ---------------------------------------------------------------------------
// The command, on real databases

struct Outcome {
  int exit_code;
  std::string out;
  std::string err;
};

Outcome report(std::vector<std::string> args) {
  args.insert(args.begin(), "report");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int code = run_report(static_cast<int>(argv.size()), argv.data());
  Outcome outcome{code, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  return outcome;
}

class ReportCommandTest : public UtcTest {
 protected:
  void SetUp() override {
    UtcTest::SetUp();
    {
      DBAccess schema(db(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
      schema.execute_query(anomaly_schema::anomaly_db_sql());
    }
    service = std::make_unique<DetectionService>(dir.path(), "anomaly.db", 0.5, 3.0, "");
  }

  std::string db() const { return dir.file("anomaly.db"); }
  std::string page_path() const { return dir.file("report.html"); }

  static Row job(const std::string& key, const std::string& client, time_t backup_time, double files, double kb) {
    Row row;
    const std::pair<const char*, std::string> cells[] = {
        {"BACKUP_ID", "img-" + key}, {"BACKUP_TIME", std::to_string(backup_time)}, {"CLIENT", client},
        {"POLICY", "p1"}, {"POLICY_TYPE", "Standard"}, {"SCHEDULE_TYPE", "FULL"}, {"SCHEDULE_NAME", "daily"},
        {"APP_TYPE", "app"}, {"NUM_FILES", std::to_string(files)}, {"IMAGE_SIZE", std::to_string(kb)},
        {"JOB_ID", "42"}, {"PARENT_JOB_ID", "41"}, {"KB_TRANSFERRED", std::to_string(kb)},
        {"START_TIME", std::to_string(backup_time)}, {"END_TIME", std::to_string(backup_time + 600)},
        {"TOTAL_TIME", "600"}, {"DEDUP_RATE", "2.5"}, {"USER_IDENTIFIED_CLUSTER", "-1"},
        {"DESTINATION_STORAGE_NAME", "stu1"}, {"STREAM_NUMBER", "0"}, {"ASSET_ID", "vm1"}, {"UNIQUE_KEY", key}};
    for (const auto& [column, value] : cells) row[column] = Value(value);
    return row;
  }

  void insert(const std::string& table, const Row& row) {
    tsanomaly_test::RowWriter::insert(service->database(), table, row);
  }

  // Daily accepted jobs of the client's workload before `until`.
  void history(const std::string& client, int days, time_t until, double files, double kb) {
    for (int i = days; i >= 1; --i) {
      Row row = job(client + "-h" + std::to_string(i), client, until - i * kDay, files + i % 3, kb + 1024 * (i % 4));
      row["MODE"] = Value(1);
      insert("HIST_DATA", row);
    }
  }

  // The job queued and reported with the detector's own payload.
  void anomaly(const Row& queued, const DetectionService::AnomalyStats& stats, time_t detected, bool keep_queued = true) {
    if (keep_queued) {
      Row pending = queued;
      pending["PROCESSED_STATUS"] = Value(1);
      insert("DATA_TO_PROCESS", pending);
    }
    const std::string id = queued.at("JOB_ID").text() + "_" + queued.at("BACKUP_TIME").text();
    ClosestClusterInfo closest{1, 3.27};
    const std::string payload = service->get_json_payload_for_anomaly(queued, stats, 1, id, closest);
    Statement st(service->database().handle, "INSERT INTO ANOMALY_DATA VALUES (?, ?, 0, ?, ?, ?)");
    st.bind(1, id);
    st.bind(2, payload);
    st.bind(3, queued.at("UNIQUE_KEY").text());
    st.bind(4, queued.at("CLIENT").text());
    st.bind(5, static_cast<int>(detected));
    service->database().execute_query_prepared(st);
  }

  // Two anomalies: an older one whose job has left the queue, and a newer
  // one of client `newest_client` with 20 days of history, flagged for its
  // image size (1536 MB) and file count (5120).
  void two_anomalies(const std::string& newest_client) {
    const time_t now = std::time(nullptr);
    Row gone = job("gone", "old-client", now - 3 * kDay, 10, 1024);
    gone["JOB_ID"] = Value(7);
    anomaly(gone, {{"NUM_FILES", {10, 100, 120}}}, now - 3 * kDay, false);

    history(newest_client, 20, now - 3600, 4000, 1000.0 * 1024);
    Row fresh = job("fresh", newest_client, now - 3600, 5120, 1536.0 * 1024);
    anomaly(fresh, {{"IMAGE_SIZE", {1536.0 * 1024, 1000.0 * 1024, 1200.5 * 1024}}, {"NUM_FILES", {5120, 4000, 4500}}},
            now - 600);
  }

  TempDir dir;
  std::unique_ptr<DetectionService> service;
};

TEST_F(ReportCommandTest, WritesOneCardPerAnomalyNewestFirstWithAChartPerFeature) {
  two_anomalies("web01");
  const Outcome outcome = report({db(), "-o", page_path()});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  EXPECT_NE(outcome.out.find("2 of 2 anomalies"), std::string::npos) << outcome.out;
  const std::string page = TempDir::read(page_path());
  ASSERT_EQ(card_ids(page).size(), 2u);
  EXPECT_EQ(card_ids(page)[0].rfind("42_", 0), 0u);
  EXPECT_EQ(card_ids(page)[1].rfind("7_", 0), 0u);
  EXPECT_EQ(occurrences(page, "<svg class=\"chart\""), 2u);
  EXPECT_EQ(occurrences(page, "class=\"band\""), 2u);
  EXPECT_NE(page.find(">this job: 1536.00 MB</text>"), std::string::npos);
  EXPECT_NE(page.find(">this job: 5120 files</text>"), std::string::npos);
  EXPECT_EQ(occurrences(page, "class=\"point\""), 40u);
  EXPECT_NE(page.find("no longer in the detection queue"), std::string::npos);
  EXPECT_EQ(tile_value(page, "total"), "2");
  EXPECT_EQ(tile_value(page, "clients"), "2");
  EXPECT_EQ(tile_value(page, "day"), "1");
  EXPECT_EQ(tile_value(page, "week"), "2");
  EXPECT_EQ(tile_value(page, "kind"), "Backup files count");
}

TEST_F(ReportCommandTest, ClientNamesWithMarkupAndUtf8AreEscaped) {
  const std::string client = "db\"01\" <prod> & \xC3\x9C" "ber-Server";
  two_anomalies(client);
  ASSERT_EQ(report({db(), "-o", page_path()}).exit_code, 0);
  const std::string page = TempDir::read(page_path());
  EXPECT_NE(page.find("<h2 class=\"client\">db&quot;01&quot; &lt;prod&gt; &amp; \xC3\x9C" "ber-Server</h2>"),
            std::string::npos);
  EXPECT_EQ(page.find("<prod>"), std::string::npos);
  // The workload's history was found through the awkward name.
  EXPECT_EQ(occurrences(page, "<svg class=\"chart\""), 2u);
}

TEST_F(ReportCommandTest, LimitCapsTheCardsButNotTheSummary) {
  two_anomalies("web01");
  const Outcome outcome = report({db(), "-o", page_path(), "--limit", "1"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const std::string page = TempDir::read(page_path());
  ASSERT_EQ(card_ids(page).size(), 1u);
  EXPECT_EQ(card_ids(page)[0].rfind("42_", 0), 0u);
  EXPECT_EQ(tile_value(page, "total"), "2");
  EXPECT_NE(page.find("Showing the newest 1 of 2 anomalies."), std::string::npos);

  ASSERT_EQ(report({db(), "--output=" + page_path(), "--limit=0"}).exit_code, 0);
  EXPECT_EQ(card_ids(TempDir::read(page_path())).size(), 0u);
}

TEST_F(ReportCommandTest, EmptyDatabaseGivesAPageSayingSo) {
  const Outcome outcome = report({db(), "-o", page_path()});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const std::string page = TempDir::read(page_path());
  EXPECT_NE(page.find("No anomalies reported"), std::string::npos);
  EXPECT_NE(page.find("</html>"), std::string::npos);
}

TEST_F(ReportCommandTest, ReplacesAnEarlierPageAndLeavesNoTemporaryFiles) {
  TempDir::write(page_path(), "old");
  ASSERT_EQ(report({db(), "-o", page_path()}).exit_code, 0);
  EXPECT_NE(TempDir::read(page_path()), "old");
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename().string());
  }
  for (const std::string& name : names) EXPECT_EQ(name.find(".tmp."), std::string::npos) << name;
}

TEST_F(ReportCommandTest, HelpDescribesTheOptions) {
  const Outcome outcome = report({"--help"});
  EXPECT_EQ(outcome.exit_code, 0);
  for (const char* text : {"usage: tsanomalyctl report DB -o FILE.html", "--limit N", "default 100"}) {
    EXPECT_NE(outcome.out.find(text), std::string::npos) << text;
  }
}

TEST_F(ReportCommandTest, UsageErrorsExitTwoWithAMessage) {
  const struct {
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {{}, "missing argument"},
      {{db()}, "missing -o FILE.html"},
      {{db(), "-o"}, "option -o needs a value"},
      {{db(), "-o", ""}, "-o needs a file name"},
      {{db(), "-o", page_path(), "--limit", "many"}, "--limit takes a whole number"},
      {{db(), "-o", page_path(), "--limit", "-1"}, "--limit takes a whole number"},
      {{db(), "-o", page_path(), "--colour"}, "unknown option --colour"},
      {{db(), "extra", "-o", page_path()}, "unexpected argument 'extra'"},
      {{db(), "-o", db()}, "-o names the database itself"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = report(c.args);
    EXPECT_EQ(outcome.exit_code, 2) << c.message;
    EXPECT_NE(outcome.err.find(std::string("tsanomalyctl report: ") + c.message), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_FALSE(std::filesystem::exists(page_path()));
  // The database survived the attempt to overwrite it.
  EXPECT_EQ(report({db(), "-o", page_path()}).exit_code, 0);
}

TEST_F(ReportCommandTest, UnreadableInputsAndUnwritableOutputsExitOne) {
  TempDir::write(dir.file("notes.txt"), "this is not a database, just some text that is long enough to matter\n");
  {
    DBAccess other(dir.file("other.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    other.execute_query("CREATE TABLE T (A TEXT)");
  }
  std::filesystem::create_directory(dir.file("folder"));
  const struct {
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {{dir.file("missing.db"), "-o", page_path()}, "cannot read database"},
      {{dir.file("notes.txt"), "-o", page_path()}, "is not an SQLite database"},
      {{dir.file("other.db"), "-o", page_path()}, "has no ANOMALY_DATA table"},
      {{db(), "-o", dir.file("no/such/folder/report.html")}, "cannot write"},
      {{db(), "-o", dir.file("folder")}, "cannot write"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = report(c.args);
    EXPECT_EQ(outcome.exit_code, 1) << c.message;
    EXPECT_NE(outcome.err.find("tsanomalyctl report: "), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find(c.message), std::string::npos) << outcome.err;
  }
  EXPECT_FALSE(std::filesystem::exists(page_path()));
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("folder")));
  EXPECT_TRUE(std::filesystem::is_empty(dir.file("folder")));
}

}  // namespace
