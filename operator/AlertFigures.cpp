#include "operator/AlertFigures.h"

#include <cstdlib>

#include "schema/AlertSql.h"
#include "storage/Statement.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

bool alert_tables_present(DBAccess& db) {
  Rows rows;
  db.read_data(alert_sql::kCountAlertTables, rows);
  return static_cast<int>(rows[0]["N"]) == 2;
}

std::vector<ChannelFigures> alert_channel_figures(DBAccess& db, time_t now) {
  std::vector<ChannelFigures> figures;
  if (!alert_tables_present(db)) return figures;
  Statement st(db.handle, alert_sql::kChannelFigures);
  db.visit_records_prepared(st, [&](const auto& cursor) {
    const auto number = [&](int i) { return std::strtoll(cursor.text(i), nullptr, 10); };
    ChannelFigures& f = figures.emplace_back();
    f.channel = cursor.text(0);
    f.delivered = number(1);
    f.failing = number(2);
    f.given_up = number(3);
    f.waiting = number(4);
    f.withdrawn = number(5);
    if (*cursor.text(6) != '\0') f.oldest_undelivered_age = static_cast<long long>(now) - number(6);
  });
  return figures;
}
