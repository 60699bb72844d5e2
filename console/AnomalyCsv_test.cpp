#include "console/AnomalyCsv.h"

#include <gtest/gtest.h>

namespace {

TEST(AnomalyCsvTest, CellsAreQuotedAndFormulasNeutralised) {
  EXPECT_EQ(csv_cell("web-01"), "\"web-01\"");
  EXPECT_EQ(csv_cell("say \"hi\", then"), "\"say \"\"hi\"\", then\"");
  EXPECT_EQ(csv_cell("two\r\nlines"), "\"two\r\nlines\"");
  for (const char* formula : {"=HYPERLINK(\"http://x\")", "+1+1", "-2+3", "@SUM(A1)", "\tTAB", "\rCR"}) {
    const std::string cell = csv_cell(formula);
    EXPECT_EQ(cell.substr(0, 2), "\"'") << formula;
  }
  EXPECT_EQ(csv_cell("\xFF"), "\"\xEF\xBF\xBD\"");
  EXPECT_LE(csv_cell(std::string(100000, 'x')).size(), kMaxCsvCellBytes + 8);
}

TEST(AnomalyCsvTest, OneLinePerAnomalyAfterTheHeader) {
  ListedAnomaly row;
  row.id = "7_1700000000";
  row.client = "=cmd|' /C calc'!A0";
  row.detection_time = 1700000000;
  const std::string csv = anomaly_csv({row, row});
  std::size_t lines = 0;
  for (std::size_t at = csv.find("\r\n"); at != std::string::npos; at = csv.find("\r\n", at + 2)) ++lines;
  EXPECT_EQ(lines, 3u);
  EXPECT_NE(csv.find(",\"'=cmd|' /C calc'!A0\","), std::string::npos) << csv;
  EXPECT_NE(csv.find("\"/anomalies/7_1700000000\""), std::string::npos);
}

}  // namespace
