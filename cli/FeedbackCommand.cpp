#include "cli/FeedbackCommand.h"

#include <sqlite3.h>

#include <iostream>
#include <string>

#include "storage/Statement.h"
#include "operator/AnomalyStore.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

const CommandArgs::Syntax kSyntax{{}, 2, 2};

const std::string kFeedbackHelp =
    "usage: tsanomalyctl feedback DB ANOMALY_ID\n"
    "\n"
    "Reports the anomaly ANOMALY_ID (as listed by 'tsanomalyctl anomalies') as a\n"
    "false positive. At its next pass the detector adds the job to the history as\n"
    "a confirmed normal job, and later jobs like it are no longer reported.\n";

namespace {

bool verdict_already_recorded(DBAccess& db, const std::string& id) {
  Statement st(db.handle, "SELECT COUNT(*) FROM ANOMALY_DATA_FEEDBACK WHERE ANOMALY_UNIQUE_ID = ? AND FEEDBACK = 1");
  st.bind(1, id);
  Rows rows;
  db.read_data_prepared(st, rows);
  return static_cast<int>(rows[0]["COUNT(*)"]) != 0;
}

void record_verdict(DBAccess& db, const std::string& id) {
  Statement st(db.handle, "INSERT INTO ANOMALY_DATA_FEEDBACK (ANOMALY_UNIQUE_ID, FEEDBACK) VALUES (?, 1)");
  st.bind(1, id);
  db.execute_query_prepared(st);
}

}  // namespace

int run_feedback(int argc, char** argv) {
  CommandArgs args(argc, argv, kSyntax);
  if (auto exit_code = args.help_or_usage_error("feedback", kFeedbackHelp)) return *exit_code;
  const std::string path = args.positional()[0];
  const std::string id = args.positional()[1];
  try {
    if (!AnomalyStore(path).find(id)) {
      std::cerr << "tsanomalyctl feedback: no anomaly '" << id << "' in " << path
                << " (see 'tsanomalyctl anomalies " << path << "')\n";
      return 1;
    }
    DBAccess db(path, SQLITE_OPEN_READWRITE);
    sqlite3_busy_timeout(db.handle, 10000);  // the detector may be writing
    if (verdict_already_recorded(db, id)) {
      std::cout << "Anomaly " << id << " is already reported as a false positive.\n";
      return 0;
    }
    record_verdict(db, id);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl feedback: " << ErrorText::of(e) << "\n";
    return 1;
  }
  std::cout << "Anomaly " << id << " reported as a false positive; the next detection pass takes the job into the "
               "history.\n";
  return 0;
}
