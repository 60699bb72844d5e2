#include "service/PassStatus.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "platform/LocalTime.h"
#include "schema/PassStatusSql.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

// The single number N of a one-row query; rowids are bound as doubles,
// exact far beyond any table's size.
long long number(PassStatus::DBAccess& db, const char* sql, std::optional<double> bound = std::nullopt) {
  Statement st(db.handle, sql);
  if (bound) st.bind(1, *bound);
  Rows rows;
  db.read_data_prepared(st, rows);
  return rows.empty() ? 0 : std::strtoll(rows[0]["N"].text().c_str(), nullptr, 10);
}


}  // namespace

PassStatus PassStatus::before_pass(DBAccess& db) {
  PassStatus status;
  try {
    Marks marks;
    marks.queue_mark = static_cast<double>(number(db, pass_status_sql::kQueueMark));
    marks.pending = number(db, pass_status_sql::kPendingUpToMark, marks.queue_mark);
    marks.anomaly_mark = static_cast<double>(number(db, pass_status_sql::kAnomalyMark));
    status.marks_ = marks;
  } catch (const std::exception&) {
    // No counts this time; the line still says when the pass ended.
  }
  return status;
}

std::string PassStatus::after_pass(DBAccess& db, time_t ended, double seconds) const {
  std::string counts;
  if (marks_) {
    try {
      const long long judged = marks_->pending - number(db, pass_status_sql::kPendingUpToMark, marks_->queue_mark);
      const long long anomalies = number(db, pass_status_sql::kAnomaliesAfterMark, marks_->anomaly_mark);
      counts = std::to_string(judged) + " jobs judged, " + std::to_string(anomalies) + " anomalies reported, ";
    } catch (const std::exception&) {
    }
  }
  char duration[32];
  std::snprintf(duration, sizeof duration, "%.1f s", seconds);
  return "Last pass ended " + local_time_text(ended) + ": " + counts + "took " + duration;
}
