#include "operator/StatusFigures.h"

#include <cstdlib>

#include "schema/ConsoleSql.h"
#include "storage/Statement.h"
#include "util/TimeUnits.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

long long integer(const char* text) { return std::strtoll(text, nullptr, 10); }

// The one number a query yields in its first column (0 for no row); a ? in
// the text takes since.
long long single_number(DBAccess& db, const std::string& sql, double since = 0) {
  Statement st(db.handle, sql);
  if (sql.find('?') != std::string::npos) st.bind(1, since);
  long long n = 0;
  db.visit_records_prepared(st, [&](const RecordCursor& cursor) { n = integer(cursor.text(0)); });
  return n;
}

void count_by_state(DBAccess& db, StatusFigures& figures) {
  Statement st(db.handle, console_sql::kAnomaliesByState);
  db.visit_records_prepared(st, [&](const RecordCursor& cursor) {
    const long long n = integer(cursor.text(1));
    figures.by_state[static_cast<int>(state_from_number(integer(cursor.text(0))))] += n;
    figures.anomalies += n;
  });
}

}  // namespace

StatusFigures read_status_figures(DBAccess& db, time_t now) {
  db.begin_transaction();
  StatusFigures figures;
  figures.pending = single_number(db, console_sql::kPendingJobs);
  figures.awaiting_verdict = single_number(db, console_sql::kAwaitingVerdict);
  figures.models = single_number(db, console_sql::kCalibratedModels);
  figures.newest_detection = static_cast<time_t>(single_number(db, console_sql::kNewestDetection));
  figures.last_day = single_number(db, console_sql::kAnomaliesSince, static_cast<double>(now - kSecondsPerDay));
  figures.last_week = single_number(db, console_sql::kAnomaliesSince, static_cast<double>(now - 7 * kSecondsPerDay));
  count_by_state(db, figures);
  figures.alert_channels = alert_channel_figures(db, now);
  db.commit_transaction();
  return figures;
}

HistoryCounts read_history_counts(DBAccess& db, time_t now) {
  db.begin_transaction();
  HistoryCounts counts;
  counts.taken = now;
  counts.rows = single_number(db, console_sql::kHistoryRows);
  counts.workloads = single_number(db, console_sql::kWorkloads);
  db.commit_transaction();
  return counts;
}
