// AnomalyCsv: the filtered anomaly list as CSV (RFC 4180, CRLF line ends,
// UTF-8), for spreadsheets. Every cell is quoted, so commas, quotes and line
// breaks in a name stay inside it, and a cell that a spreadsheet would read
// as a formula (=, +, -, @, tab, CR first) is prefixed with an apostrophe.
// Cells are cut at kMaxCsvCellBytes so a file's size follows its row count.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "console/ConsoleStore.h"

inline constexpr std::size_t kMaxCsvCellBytes = 1024;

// One cell, quoted and neutralised.
std::string csv_cell(std::string_view text);

// The header line and one line per anomaly.
std::string anomaly_csv(const std::vector<ListedAnomaly>& rows);
