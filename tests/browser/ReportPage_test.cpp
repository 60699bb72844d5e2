// The report page in a real browser: a detection pass flags jobs of two
// workloads whose client names need escaping, the built tsanomalyctl writes
// the page, and headless Chromium loads it from disk (no network, no
// scripts) and dumps the DOM it built. The DOM must hold one card per
// anomaly, one chart per feature out of range, the marked job's value, the
// usual-range bands and the client names exactly as stored.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "service/DetectionService.h"
#include "storage/Statement.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RowWriter.h"
#include "tests/support/TempDir.h"
#include "operator/AnomalyStore.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

namespace {

constexpr const char* kChromium = "/usr/bin/chromium";
constexpr time_t kDay = 86400;

// Client names a naive page would break on: markup characters, both quotes,
// an ampersand, and multi-byte UTF-8 (Zürich, 東京).
const std::string kMarkupClient = "web<b>01</b> & \"prod\"";
const std::string kUtf8Client = "Z\xC3\xBCrich-\xE6\x9D\xB1\xE4\xBA\xAC 'files'";

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
  return count;
}

class ReportPageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kChromium, X_OK) != 0) {
      GTEST_SKIP() << kChromium << " is not installed; run scripts/install-deps to render the report page";
    }
    {
      DBAccess schema(db(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
      schema.execute_query(anomaly_schema::anomaly_db_sql());
    }
    service = std::make_unique<DetectionService>(dir.path(), "anomaly.db", 0.5, 3.0, "");
  }

  std::string db() const { return dir.file("anomaly.db"); }

  // A job of the client's workload with everyday values; features overridden
  // by name.
  static Row job(const std::string& key, const std::string& client, time_t backup_time,
                 const std::vector<std::pair<std::string, std::string>>& features) {
    Row row;
    const std::pair<const char*, std::string> cells[] = {
        {"BACKUP_ID", "img-" + key}, {"BACKUP_TIME", std::to_string(backup_time)}, {"CLIENT", client},
        {"POLICY", "nightly-fs"}, {"POLICY_TYPE", "Standard"}, {"SCHEDULE_TYPE", "FULL"},
        {"SCHEDULE_NAME", "daily"}, {"APP_TYPE", "fs"}, {"NUM_FILES", "4200"}, {"IMAGE_SIZE", "1048576"},
        {"JOB_ID", "9001"}, {"PARENT_JOB_ID", "9000"}, {"KB_TRANSFERRED", "524288"},
        {"START_TIME", std::to_string(backup_time - 600)}, {"END_TIME", std::to_string(backup_time)},
        {"TOTAL_TIME", "600"}, {"DEDUP_RATE", "11.5"}, {"USER_IDENTIFIED_CLUSTER", "-1"},
        {"DESTINATION_STORAGE_NAME", "msdp-pool-1"}, {"STREAM_NUMBER", "0"}, {"ASSET_ID", "asset-1"},
        {"UNIQUE_KEY", key}};
    for (const auto& [column, value] : cells) row[column] = Value(value);
    for (const auto& [column, value] : features) row[column] = Value(value);
    return row;
  }

  void insert(const std::string& table, const Row& row) {
    tsanomaly_test::RowWriter::insert(service->database(), table, row);
  }

  // Forty nightly jobs with a little day-to-day variation in the feature
  // that will later go astray; the other features stay put.
  void nightly_history(const std::string& client, const std::string& varying, double base, double wobble,
                       time_t until) {
    for (int i = 40; i >= 1; --i) {
      const double value = base + wobble * ((i * 7) % 5 - 2);
      Row row = job(client + "#" + std::to_string(i), client, until - i * kDay, {{varying, std::to_string(value)}});
      row["MODE"] = Value(1);
      insert("HIST_DATA", row);
    }
  }

  std::string render(const std::string& page) {
    ChildProcess chromium({kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                           "--no-first-run", "--disable-background-networking", "--disable-component-update",
                           "--disable-sync", "--disable-extensions", "--user-data-dir=" + dir.file("chromium-profile"),
                           "--dump-dom", "file://" + page});
    const int code = ChildProcess::run(chromium, std::chrono::seconds(90));
    EXPECT_EQ(code, 0) << chromium.err();
    return chromium.out();
  }

  TempDir dir;
  std::unique_ptr<DetectionService> service;
};

TEST_F(ReportPageTest, ChromiumShowsEveryAnomalyWithItsCharts) {
  const time_t now = std::time(nullptr);
  // Workload A grows to three times its size with twice the files; workload B
  // takes ten times as long and deduplicates badly. A third job of workload
  // A is ordinary and must not appear.
  nightly_history(kMarkupClient, "IMAGE_SIZE", 1048576, 8192, now - 2 * 3600);
  nightly_history(kUtf8Client, "TOTAL_TIME", 600, 10, now - 2 * 3600);
  {
    // The image size grows as well as the file count; in history the count
    // never varied, so it has a one-value range.
    Row a = job("a-big", kMarkupClient, now - 3600, {{"IMAGE_SIZE", "3145728"}, {"NUM_FILES", "8400"}});
    a["PROCESSED_STATUS"] = Value(0);
    a["USER_IDENTIFIED_CLUSTER"] = Value(0);
    insert("DATA_TO_PROCESS", a);
    Row b = job("b-slow", kUtf8Client, now - 3600, {{"TOTAL_TIME", "6000"}, {"DEDUP_RATE", "1.5"}});
    b["JOB_ID"] = Value(9002);
    b["PROCESSED_STATUS"] = Value(0);
    b["USER_IDENTIFIED_CLUSTER"] = Value(0);
    insert("DATA_TO_PROCESS", b);
    Row ok = job("a-ok", kMarkupClient, now - 1800, {{"IMAGE_SIZE", "1048576"}});
    ok["JOB_ID"] = Value(9003);
    ok["PROCESSED_STATUS"] = Value(0);
    ok["USER_IDENTIFIED_CLUSTER"] = Value(0);
    insert("DATA_TO_PROCESS", ok);
  }
  service->do_detection();
  service.reset();

  // What the detector reported decides what the page must show.
  std::size_t anomalies = 0, features = 0;
  {
    const AnomalyStore store(db());
    for (const AnomalyRecord& anomaly : store.anomalies({})) {
      ++anomalies;
      features += anomaly.attributes.size();
    }
  }
  ASSERT_EQ(anomalies, 2u) << "the pass should flag the two odd jobs and accept the ordinary one";
  ASSERT_EQ(features, 4u) << "image size and files count of one job, time and deduplication of the other";

  const std::string page = dir.file("report.html");
  ChildProcess tool({TSANOMALYCTL_PATH, "report", db(), "-o", page});
  ASSERT_EQ(ChildProcess::run(tool), 0) << tool.err();

  const std::string dom = render(page);
  ASSERT_NE(dom.find("</html>"), std::string::npos) << dom.substr(0, 2000);
  EXPECT_EQ(occurrences(dom, "<article class=\"card\""), anomalies);
  EXPECT_EQ(occurrences(dom, "<svg class=\"chart\""), features);
  EXPECT_EQ(occurrences(dom, "class=\"band\""), features);
  EXPECT_EQ(occurrences(dom, "<circle class=\"job\""), features);
  EXPECT_EQ(occurrences(dom, "<script"), 0u);

  // The browser read the names as text: Chromium serialises text with <, >
  // and & as entities and quotes as they are, so the markup client comes
  // back like this only if no <b> element was made of it.
  EXPECT_NE(dom.find("<h2 class=\"client\">web&lt;b&gt;01&lt;/b&gt; &amp; \"prod\"</h2>"), std::string::npos);
  EXPECT_EQ(dom.find("<b>"), std::string::npos);
  EXPECT_NE(dom.find("<h2 class=\"client\">" + kUtf8Client + "</h2>"), std::string::npos);

  // The marked jobs' values, as the detector wrote them, beside the red dots.
  for (const char* label : {">this job: 3072.00 MB</text>", ">this job: 8400 files</text>",
                            ">this job: 6000 s</text>", ">this job: 1.5</text>"}) {
    EXPECT_NE(dom.find(label), std::string::npos) << label;
  }
  // The newest anomaly comes first; both were reported in the same pass, so
  // the later insert (workload B) is the newer.
  EXPECT_LT(dom.find("data-anomaly-id=\"9002_"), dom.find("data-anomaly-id=\"9001_"));
  // Summary tiles as the browser sees them.
  EXPECT_NE(dom.find("<div class=\"label\">Anomalies</div><div class=\"value\">2</div>"), std::string::npos);
  EXPECT_NE(dom.find("<div class=\"label\">Clients affected</div><div class=\"value\">2</div>"), std::string::npos);
  EXPECT_NE(dom.find("<div class=\"label\">Last 24 hours</div><div class=\"value\">2</div>"), std::string::npos);
}

TEST_F(ReportPageTest, ChromiumShowsTheEmptyPage) {
  service.reset();
  const std::string page = dir.file("empty.html");
  ChildProcess tool({TSANOMALYCTL_PATH, "report", db(), "-o", page});
  ASSERT_EQ(ChildProcess::run(tool), 0) << tool.err();
  const std::string dom = render(page);
  EXPECT_NE(dom.find("No anomalies reported"), std::string::npos) << dom.substr(0, 2000);
  EXPECT_EQ(occurrences(dom, "<article class=\"card\""), 0u);
  EXPECT_EQ(occurrences(dom, "<svg"), 0u);
}

}  // namespace
