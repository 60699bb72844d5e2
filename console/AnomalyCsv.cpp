#include "console/AnomalyCsv.h"

#include "platform/LocalTime.h"
#include "util/Text.h"
#include "console/UrlText.h"

std::string csv_cell(std::string_view text) {
  const std::string cell = text::as_utf8(text::capped(text, kMaxCsvCellBytes));
  std::string out = "\"";
  if (!cell.empty() && std::string_view("=+-@\t\r").find(cell.front()) != std::string_view::npos) out += '\'';
  for (const char c : cell) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string anomaly_csv(const std::vector<ListedAnomaly>& rows) {
  std::string out = "\"id\",\"detected\",\"detection_epoch\",\"client\",\"policy\",\"out_of_range\",\"score\",\"state\","
                    "\"url\"\r\n";
  for (const ListedAnomaly& row : rows) {
    const std::string cells[] = {row.id,      local_time_text(row.detection_time), std::to_string(row.detection_time),
                                 row.client,  row.policy,                          row.summary,
                                 row.score,   state_info(row.state).slug,          anomaly_path(row.id)};
    std::string line;
    for (const std::string& cell : cells) line += (line.empty() ? "" : ",") + csv_cell(cell);
    out += line + "\r\n";
  }
  return out;
}
