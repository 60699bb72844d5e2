// AlertFigures: how each alert channel is doing, from the alert tables: the
// figures `tsanomalyctl status`, the console's status page and its metrics
// show. Reading only; a database without alert tables has no figures.
// Failures are thrown as the storage layer's sqlite_exception.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "storage/DBAccess.h"

struct ChannelFigures {
  std::string channel;     // "webhook", "exec", "syslog"
  long long delivered = 0;
  long long failing = 0;   // waiting after at least one failed attempt
  long long given_up = 0;  // failed for the whole retry window
  long long waiting = 0;   // not delivered yet, failing ones included
  long long withdrawn = 0; // handled by an operator before the alert went out
  // Seconds since the oldest alert still waiting was found; none when
  // nothing waits.
  std::optional<long long> oldest_undelivered_age;
};

// Whether the database has the alert process's two tables.
bool alert_tables_present(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db);

// One entry per channel that has ever had an alert, by channel name.
std::vector<ChannelFigures> alert_channel_figures(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db,
                                                  time_t now);
