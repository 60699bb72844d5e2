// A whole detection pass (or two) over a small database built from the fuzz
// input: one or two workloads with generated history, odd history rows with
// fuzzed cell texts, stored models, one to four queued jobs (usual, far, or
// with fuzzed or NULL cells), reported anomalies with verdicts, and an INI
// file that is either structured or raw fuzz text. After every pass:
//   - no job is lost: each queued job is still queued or is in the history;
//   - no history row that was there before is altered;
//   - a job taken out of the pending set without entering the history was
//     reported (its anomaly row exists);
//   - no job is reported twice, and every new payload is well-formed JSON;
//   - a consumed verdict moved its job into the history as user-confirmed;
//   - nothing escapes do_detection.
#include <fuzzer/FuzzedDataProvider.h>
#include <jansson.h>
#include <sqlite3.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "platform/DebugLog.h"
#include "schema/AnomalySchema.h"
#include "service/DetectionService.h"
#include "storage/DBAccess.h"
#include "storage/Statement.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using Cell = std::pair<bool, std::string>;  // {is NULL, text}
using Cells = std::map<std::string, Cell>;

constexpr time_t kNow = 1700000000;

const char* const kOddNames[] = {"c1",      "C1",       "c2",          "NA",    "na", "",  "%s%n%x", "o'brien \"x\"",
                                 "ü-客户", "\xff\xfe", "a,b",         " c1",   "c1 ", "\n", "Standard", "standard"};
const char* const kOddNumbers[] = {"0",    "-1",  "1",      "100",  "1024",                 "2.5",        "nan",
                                   "inf",  "-inf", "1e400", "1e-320", "99999999999999999999", "4294967396", "-2147483649",
                                   "abc",  "12abc", "",     " 7",   "0x10",                 "1e3",        "NaN"};
const char* const kFeatures[] = {"NUM_FILES", "IMAGE_SIZE", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"};
constexpr double kUsual[] = {100, 1024, 2048, 600, 2.5};  // in kFeatures order
// The features in the order the generating statement takes them:
// NUM_FILES, IMAGE_SIZE, KB_TRANSFERRED, TOTAL_TIME, DEDUP_RATE.
constexpr int kGeneratedOrder[] = {0, 1, 2, 3, 4};
const char* const kKeyColumns[] = {"CLIENT",   "POLICY",   "POLICY_TYPE",         "SCHEDULE_TYPE",
                                   "SCHEDULE_NAME", "APP_TYPE", "DESTINATION_STORAGE_NAME", "ASSET_ID"};
const char* const kKeyDefaults[] = {"c1", "p1", "Standard", "FULL", "daily", "app", "stu1", "vm1"};
const char* const kQueueColumns[] = {
    "BACKUP_ID",     "BACKUP_TIME",     "CLIENT",         "POLICY",     "POLICY_TYPE",   "SCHEDULE_TYPE",
    "SCHEDULE_NAME", "APP_TYPE",        "NUM_FILES",      "IMAGE_SIZE", "JOB_ID",        "PARENT_JOB_ID",
    "KB_TRANSFERRED", "START_TIME",     "END_TIME",       "TOTAL_TIME", "DEDUP_RATE",    "USER_IDENTIFIED_CLUSTER",
    "DESTINATION_STORAGE_NAME", "STREAM_NUMBER", "ASSET_ID", "UNIQUE_KEY", "PROCESSED_STATUS"};

struct World {
  std::string folder;
  std::string ini;
  std::unique_ptr<DBAccess> admin;  // seeds and inspects the tables
  std::vector<std::unique_ptr<DetectionService>> services;
};

// Re-creates a table from its own DDL without NOT NULL, so that NULL cells
// can reach the detector as another writer's schema might let them.
void without_not_null(DBAccess& db, const std::string& table) {
  Rows rows;
  db.read_data("SELECT type, sql FROM sqlite_master WHERE tbl_name = '" + table + "' AND sql IS NOT NULL", rows);
  std::string ddl;
  std::vector<std::string> indexes;
  for (auto& row : rows) (row["type"].text() == "table" ? ddl : indexes.emplace_back()) = row["sql"].text();
  for (std::string::size_type at; (at = ddl.find(" NOT NULL")) != std::string::npos;) ddl.erase(at, 9);
  db.execute_query("DROP TABLE " + table);
  db.execute_query(ddl);
  for (const std::string& index : indexes) db.execute_query(index);
}

World& world() {
  static World w = [] {
    World made;
    made.folder = fuzz_support::scratch_folder("fuzz-pass");
    made.ini = made.folder + "/tsanomalydetect.ini";
    const std::string db = made.folder + "/pass.db";
    made.admin = std::make_unique<DBAccess>(db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    made.admin->execute_query(anomaly_schema::anomaly_db_sql());
    made.admin->execute_query("PRAGMA synchronous = OFF");
    without_not_null(*made.admin, "DATA_TO_PROCESS");
    without_not_null(*made.admin, "ANOMALY_DATA_FEEDBACK");
    int status = 0;
    open_debug_log(made.folder, "tsanomalydetect", "tsanomalydetect", 0644, &status);
    FUZZ_CHECK(status == 0, "cannot open the debug log");
    set_debug_log_rotation(1u << 20, 0);
    // Services with different command-line eps and minimum samples.
    for (const auto& [eps, min_samples] : {std::pair{0.5, 3.0}, {0.05, 3.0}, {2.0, 5.0}, {0.0, 3.0}}) {
      made.services.push_back(std::make_unique<DetectionService>(made.folder, "pass.db", eps, min_samples, made.ini));
      made.services.back()->set_busy_timeout(0);
      made.services.back()->database().execute_query("PRAGMA synchronous = OFF");
    }
    return made;
  }();
  return w;
}

Rows read(DBAccess& db, const std::string& sql);

// ---- generating -------------------------------------------------------------

struct Rng {  // xorshift32, seeded from the input
  uint32_t state;
  uint32_t next() {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
  }
  double unit() { return (next() % 10001) / 10000.0; }
};

// True with probability p; false when the input is used up, so that short
// inputs take the common path.
bool chance(FuzzedDataProvider& in, float p) { return in.ConsumeProbability<float>() > 1.0f - p; }

std::string odd_text(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0: return kOddNames[in.ConsumeIntegralInRange<size_t>(0, std::size(kOddNames) - 1)];
    case 1: return kOddNumbers[in.ConsumeIntegralInRange<size_t>(0, std::size(kOddNumbers) - 1)];
    default: return in.ConsumeRandomLengthString(24);
  }
}

Cell odd_cell(FuzzedDataProvider& in, bool nullable) {
  if (nullable && chance(in, 0.15f)) return {true, ""};
  return {false, odd_text(in)};
}

std::string number(double x) { return std::string(Value(x)); }

void insert(DBAccess& db, const std::string& table, const Cells& cells) {
  std::string columns, marks;
  for (const auto& [column, cell] : cells) {
    columns += (columns.empty() ? "" : ", ") + column;
    marks += marks.empty() ? "?" : ", ?";
  }
  sqlite3_stmt* st = nullptr;
  const std::string sql = "INSERT OR IGNORE INTO " + table + " (" + columns + ") VALUES (" + marks + ")";
  FUZZ_CHECK(sqlite3_prepare_v2(db.handle, sql.c_str(), -1, &st, nullptr) == SQLITE_OK, "%s", sqlite3_errmsg(db.handle));
  int i = 1;
  for (const auto& [column, cell] : cells) {
    if (cell.first) {
      sqlite3_bind_null(st, i++);
    } else {
      sqlite3_bind_text(st, i++, cell.second.data(), static_cast<int>(cell.second.size()), SQLITE_TRANSIENT);
    }
  }
  sqlite3_step(st);  // a NOT NULL history cell or a duplicate key just drops the row
  sqlite3_finalize(st);
}

struct Workload {
  std::vector<std::string> key;  // in kKeyColumns order
  double base[5];
  int history = 0;
};

Workload make_workload(FuzzedDataProvider& in) {
  Workload w;
  const bool odd = chance(in, 0.3f);
  for (size_t i = 0; i < std::size(kKeyColumns); ++i) {
    w.key.push_back(odd && in.ConsumeBool() ? odd_text(in) : kKeyDefaults[i]);
  }
  const int scale = in.ConsumeIntegralInRange(0, 3);
  for (int f = 0; f < 5; ++f) w.base[f] = kUsual[f] * (1 + scale);
  return w;
}

Cells workload_cells(const Workload& w) {
  Cells cells;
  for (size_t i = 0; i < std::size(kKeyColumns); ++i) cells[kKeyColumns[i]] = {false, w.key[i]};
  return cells;
}

void seed_history(FuzzedDataProvider& in, DBAccess& db, Workload& w, int index, Rng& rng) {
  w.history = (40 + in.ConsumeIntegralInRange(0, 60)) % 61;  // 40 when the input is used up
  const double noise = ((10 + in.ConsumeIntegralInRange(0, 30)) % 31) / 100.0;
  const bool mixed_storage = chance(in, 0.2f);
  const bool verdicts = chance(in, 0.3f);
  // The usual rows are generated by SQLite itself (one statement, a
  // deterministic pseudo-random sequence seeded from the input): far cheaper
  // than one insert per row under the sanitizers.
  static const char* const kGenerate =
      "WITH RECURSIVE n(i, r) AS (SELECT 1, ?2 UNION ALL "
      "  SELECT i + 1, (r * 1103515245 + 12345) % 2147483648 FROM n WHERE i < ?1) "
      "INSERT OR IGNORE INTO HIST_DATA (BACKUP_ID, BACKUP_TIME, CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, "
      "  SCHEDULE_NAME, APP_TYPE, NUM_FILES, IMAGE_SIZE, JOB_ID, PARENT_JOB_ID, KB_TRANSFERRED, START_TIME, END_TIME, "
      "  TOTAL_TIME, DEDUP_RATE, MODE, USER_IDENTIFIED_CLUSTER, DESTINATION_STORAGE_NAME, STREAM_NUMBER, ASSET_ID, "
      "  UNIQUE_KEY) "
      "SELECT 'img-' || i, i * 86400, ?3, ?4, ?5, ?6, ?7, ?8, "
      "  ?11 * (1 + ?16 * ((r % 1001) / 1000.0 - 0.5)), ?12 * (1 + ?16 * (((r / 7) % 1001) / 1000.0 - 0.5)), "
      "  1000 + i, 0, ?13 * (1 + ?16 * (((r / 49) % 1001) / 1000.0 - 0.5)), i * 86400, i * 86400 + 600, "
      "  ?14 * (1 + ?16 * (((r / 343) % 1001) / 1000.0 - 0.5)), ?15 * (1 + ?16 * (((r / 2401) % 1001) / 1000.0 - 0.5)), "
      "  CASE WHEN ?17 AND (r / 13) % 5 = 0 THEN 0 ELSE 1 END, "
      "  CASE WHEN ?18 AND (r / 17) % 4 = 0 THEN 1 ELSE -1 END, "
      "  CASE WHEN ?17 AND (r / 19) % 2 = 0 THEN 'stu2' ELSE ?9 END, "
      "  CASE WHEN ?10 = 'NA' THEN (r / 23) % 3 ELSE 0 END, ?10, 'h' || ?19 || '_' || i "
      "FROM n";
  sqlite3_stmt* st = nullptr;
  FUZZ_CHECK(sqlite3_prepare_v2(db.handle, kGenerate, -1, &st, nullptr) == SQLITE_OK, "%s", sqlite3_errmsg(db.handle));
  sqlite3_bind_int(st, 1, w.history);
  sqlite3_bind_int64(st, 2, rng.next() % 2147483648u);
  for (int k = 0; k < 8; ++k) {
    sqlite3_bind_text(st, 3 + k, w.key[k].data(), static_cast<int>(w.key[k].size()), SQLITE_TRANSIENT);
  }
  for (int f = 0; f < 5; ++f) sqlite3_bind_double(st, 11 + f, w.base[kGeneratedOrder[f]]);
  sqlite3_bind_double(st, 16, noise);
  sqlite3_bind_int(st, 17, mixed_storage ? 1 : 0);
  sqlite3_bind_int(st, 18, verdicts ? 1 : 0);
  sqlite3_bind_int(st, 19, index);
  const int generated = w.history > 0 ? sqlite3_step(st) : SQLITE_DONE;
  sqlite3_finalize(st);
  FUZZ_CHECK(generated == SQLITE_DONE, "generating history failed: %s", sqlite3_errmsg(db.handle));
  // A few history rows of the workload with fuzzed cells (NOT NULL there).
  for (int k = in.ConsumeIntegralInRange(0, 2); k > 0; --k) {
    Cells cells = workload_cells(w);
    for (const char* column : kQueueColumns) {
      if (cells.count(column) == 0) cells[column] = {false, odd_text(in)};
    }
    cells.erase("PROCESSED_STATUS");
    cells["MODE"] = {false, in.ConsumeBool() ? "1" : odd_text(in)};
    cells["UNIQUE_KEY"] = {false, "hr" + std::to_string(index) + "_" + std::to_string(k)};
    insert(db, "HIST_DATA", cells);
  }
  if (!chance(in, 0.5f)) {
    Cells model = workload_cells(w);
    model["EPS"] = {false, in.ConsumeBool() ? odd_text(in) : "0.5"};
    model["CAPTURE_DATE"] = {false, in.ConsumeBool() ? odd_text(in) : std::to_string(kNow)};
    insert(db, "DBSCAN_MODEL_PARAMS", model);
  }
}

std::string structured_ini(FuzzedDataProvider& in, const std::vector<Workload>& workloads) {
  std::string ini;
  const auto some_name = [&](size_t column) {
    if (!workloads.empty() && in.ConsumeBool()) {
      std::string name = workloads[in.ConsumeIntegralInRange<size_t>(0, workloads.size() - 1)].key[column];
      if (in.ConsumeBool()) {
        for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      }
      return name;
    }
    return odd_text(in);
  };
  if (in.ConsumeBool()) ini += "[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=" + odd_text(in) + "\n";
  if (in.ConsumeBool()) {
    ini += "[ANOMALY_MODEL_SETTINGS]\n";
    if (in.ConsumeBool()) ini += "MIN_OBSERVATIONS_FOR_TRAINING=" + odd_text(in) + "\n";
    if (in.ConsumeBool()) ini += "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=" + odd_text(in) + "\n";
    if (in.ConsumeBool()) ini += "MAX_OBSERVATIONS_FOR_TRAINING=" + odd_text(in) + "\n";
  }
  if (in.ConsumeBool()) ini += "[META_DATA]\nLOG_MODEL_DATA=" + std::string(in.ConsumeBool() ? "1" : "0") + "\n";
  if (chance(in, 0.3f)) ini += "[EXCLUDE_CLIENTS]\nCLIENT_NAME=" + some_name(0) + "\n";
  if (chance(in, 0.2f)) ini += "[DISABLE_POLICY_TYPE]\nPOLICY_TYPE=" + some_name(2) + "\n";
  if (chance(in, 0.2f)) ini += "[EXCLUDE_CLIENT_POLICY]\n" + some_name(0) + "=" + some_name(1) + "\n";
  if (chance(in, 0.3f)) {
    ini += "[DISABLE_FEATURE_PER_POLICY_TYPE]\n" + some_name(2) + "=";
    for (const char* feature : kFeatures) {
      if (in.ConsumeBool()) ini += std::string(in.ConsumeBool() ? feature : "num_files") + ",";
    }
    ini += "\n";
  }
  return ini;
}

// ---- reading back --------------------------------------------------------------

Rows read(DBAccess& db, const std::string& sql) {
  Rows rows;
  db.read_data(sql, rows);
  return rows;
}

std::set<std::string> column_set(DBAccess& db, const std::string& sql, const std::string& column) {
  std::set<std::string> out;
  for (auto& row : read(db, sql)) out.insert(row[column].text());
  return out;
}

struct Before {
  std::set<std::string> pending;
  std::set<std::string> anomaly_ids;
  std::map<std::string, std::string> verdict_jobs;  // verdict id -> its job's key
};

Before snapshot(DBAccess& db) {
  Before b;
  b.pending = column_set(db, "SELECT UNIQUE_KEY FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0", "UNIQUE_KEY");
  // The history rows that were there before, copied cell for cell (type
  // included) into a table of this connection only.
  db.execute_query(
      "DROP TABLE IF EXISTS temp.history_before; "
      "CREATE TEMP TABLE history_before AS SELECT * FROM HIST_DATA WHERE UNIQUE_KEY NOT LIKE 'q%'");
  b.anomaly_ids = column_set(db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA", "ANOMALY_UNIQUE_ID");
  for (auto& row : read(db, "SELECT f.ANOMALY_UNIQUE_ID AS ID, a.DETECTION_KEY AS K FROM ANOMALY_DATA_FEEDBACK f "
                            "JOIN ANOMALY_DATA a ON a.ANOMALY_UNIQUE_ID = f.ANOMALY_UNIQUE_ID WHERE f.FEEDBACK = 1")) {
    b.verdict_jobs[row["ID"].text()] = row["K"].text();
  }
  return b;
}

void check_after_pass(DBAccess& db, const Before& before, const std::set<std::string>& queued, int pass_number) {
  const std::set<std::string> in_queue = column_set(db, "SELECT UNIQUE_KEY FROM DATA_TO_PROCESS", "UNIQUE_KEY");
  const std::set<std::string> in_history = column_set(db, "SELECT UNIQUE_KEY FROM HIST_DATA", "UNIQUE_KEY");
  for (const std::string& key : queued) {
    FUZZ_CHECK(in_queue.count(key) != 0 || in_history.count(key) != 0, "pass %d lost job %s", pass_number,
               key.c_str());
  }
  Rows altered = read(db, "SELECT UNIQUE_KEY FROM (SELECT * FROM temp.history_before EXCEPT SELECT * FROM HIST_DATA)");
  FUZZ_CHECK(altered.empty(), "pass %d altered or removed the earlier history row %s", pass_number,
             altered.empty() ? "" : altered[0]["UNIQUE_KEY"].text().c_str());

  std::map<std::string, int> reports;  // DETECTION_KEY -> number of anomaly rows
  std::set<std::string> anomaly_ids;
  for (auto& row : read(db, "SELECT * FROM ANOMALY_DATA")) {
    const std::string id = row["ANOMALY_UNIQUE_ID"].text();
    anomaly_ids.insert(id);
    ++reports[row["DETECTION_KEY"].text()];
    if (before.anomaly_ids.count(id) != 0) continue;
    // A new report: JSON, count matching its summary, its own id.
    json_error_t error;
    json_t* root = json_loads(row["ANOMALY_PAYLOAD"].text().c_str(), 0, &error);
    FUZZ_CHECK(root != nullptr, "payload of %s is not JSON: %s", id.c_str(), error.text);
    json_t* attributes = json_object_get(root, "Attributes");
    FUZZ_CHECK(json_is_object(attributes), "payload of %s has no Attributes", id.c_str());
    const char* summary = json_string_value(json_object_get(attributes, "summary"));
    const char* count = json_string_value(json_object_get(attributes, "count"));
    FUZZ_CHECK(summary != nullptr && count != nullptr, "payload of %s lacks summary or count", id.c_str());
    int names = *summary == '\0' ? 0 : 1;
    for (const char* c = summary; *c != '\0'; ++c) names += *c == ',';
    FUZZ_CHECK(std::to_string(names) == count, "payload of %s: count %s for summary '%s'", id.c_str(), count, summary);
    FUZZ_CHECK(names > 0, "job reported as an anomaly without any anomalous attribute: %s", id.c_str());
    const char* own = json_string_value(json_object_get(attributes, "anomalyId"));
    FUZZ_CHECK(own != nullptr, "payload of %s has no anomalyId", id.c_str());
    FUZZ_CHECK(!fuzz_support::is_utf8(id) || id == own, "payload of %s carries another id", id.c_str());
    for (const char* name : {"clientName", "policyName", "policyType", "scheduleName", "storageName"}) {
      FUZZ_CHECK(json_is_string(json_object_get(attributes, name)), "payload of %s has no %s", id.c_str(), name);
    }
    json_decref(root);
    if (pass_number == 1) {
      FUZZ_CHECK(in_history.count(row["DETECTION_KEY"].text()) == 0, "job %s both reported and accepted",
                 row["DETECTION_KEY"].text().c_str());
    }
  }
  for (const std::string& key : queued) {
    FUZZ_CHECK(reports[key] <= 1, "job %s reported %d times", key.c_str(), reports[key]);
  }

  // Taken out of the pending set but not into the history: it was reported.
  for (auto& row : read(db, "SELECT * FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 1")) {
    const std::string key = row["UNIQUE_KEY"].text();
    if (before.pending.count(key) == 0 || in_history.count(key) != 0) continue;
    const std::string id = row["JOB_ID"].text() + "_" + std::to_string(static_cast<int>(row["BACKUP_TIME"]));
    FUZZ_CHECK(reports[key] == 1 || anomaly_ids.count(id) != 0, "job %s marked processed but never reported",
               key.c_str());
  }

  // A consumed verdict moved its job into the history, user-confirmed.
  const std::set<std::string> verdicts_left =
      column_set(db, "SELECT ANOMALY_UNIQUE_ID FROM ANOMALY_DATA_FEEDBACK", "ANOMALY_UNIQUE_ID");
  for (const auto& [id, key] : before.verdict_jobs) {
    if (verdicts_left.count(id) != 0) continue;
    Rows job = read(db, "SELECT USER_IDENTIFIED_CLUSTER FROM HIST_DATA WHERE UNIQUE_KEY = '" + key + "'");
    FUZZ_CHECK(job.size() == 1 && static_cast<int>(job[0]["USER_IDENTIFIED_CLUSTER"]) == 1,
               "verdict %s consumed without moving job %s into the history", id.c_str(), key.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  World& w = world();
  DBAccess& db = *w.admin;
  FuzzedDataProvider in(data, size);

  db.execute_query(
      "BEGIN; DELETE FROM DATA_TO_PROCESS; DELETE FROM HIST_DATA; DELETE FROM DBSCAN_MODEL_PARAMS; "
      "DELETE FROM ANOMALY_DATA; DELETE FROM ANOMALY_DATA_FEEDBACK;");
  Rng rng{in.ConsumeIntegral<uint32_t>() | 1u};
  DetectionService& service = *w.services[in.ConsumeIntegralInRange<size_t>(0, w.services.size() - 1)];
  const time_t now = !chance(in, 0.1f) ? kNow : static_cast<time_t>(in.ConsumeIntegral<int64_t>());
  service.set_clock([now] { return now; });

  std::vector<Workload> workloads;
  for (int i = in.ConsumeIntegralInRange(1, 2); i > 0; --i) {
    workloads.push_back(make_workload(in));
    seed_history(in, db, workloads.back(), static_cast<int>(workloads.size()), rng);
  }

  // Queued jobs q0..q3.
  std::set<std::string> queued;
  const int jobs = in.ConsumeIntegralInRange(1, 4);
  for (int j = 0; j < jobs; ++j) {
    const Workload& wl = workloads[in.ConsumeIntegralInRange<size_t>(0, workloads.size() - 1)];
    Cells cells = workload_cells(wl);
    const std::string key = "q" + std::to_string(j);
    const int backup_time = (wl.history + 1) * 86400 + (in.ConsumeBool() ? 400 * 86400 : 0);
    cells["BACKUP_ID"] = {false, "img-q" + std::to_string(j)};
    cells["BACKUP_TIME"] = {false, std::to_string(backup_time)};
    cells["JOB_ID"] = {false, std::to_string(42 + j)};
    cells["PARENT_JOB_ID"] = {false, "0"};
    cells["START_TIME"] = {false, std::to_string(backup_time)};
    cells["END_TIME"] = {false, std::to_string(backup_time + 600)};
    cells["USER_IDENTIFIED_CLUSTER"] = {false, "0"};
    cells["STREAM_NUMBER"] = {false, wl.key[7] == "NA" ? std::to_string(in.ConsumeIntegralInRange(0, 3)) : "0"};
    const int kind = in.ConsumeIntegralInRange(0, 2);
    for (int f = 0; f < 5; ++f) {
      cells[kFeatures[f]] = kind == 2 && in.ConsumeBool()
                                ? odd_cell(in, true)
                                : Cell{false, number(wl.base[f] * (kind == 1 ? 1 + in.ConsumeIntegralInRange(1, 20) : 1))};
    }
    cells["UNIQUE_KEY"] = {false, key};
    const bool processed = chance(in, 0.2f);
    cells["PROCESSED_STATUS"] = {false, processed ? "1" : "0"};
    // Any other cell may be odd.
    for (int k = in.ConsumeIntegralInRange(0, 3); k > 0; --k) {
      const char* column = kQueueColumns[in.ConsumeIntegralInRange<size_t>(0, std::size(kQueueColumns) - 1)];
      if (std::string(column) != "UNIQUE_KEY") cells[column] = odd_cell(in, true);
    }
    insert(db, "DATA_TO_PROCESS", cells);
    queued.insert(key);
    if (processed || chance(in, 0.1f)) {
      // It was reported earlier; maybe a verdict on it arrived. The id is
      // formed from the cells as stored (column affinity may have changed
      // their text), as the detector forms it.
      Rows stored = read(db, "SELECT JOB_ID, BACKUP_TIME FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = '" + key + "'");
      FUZZ_CHECK(stored.size() == 1, "queued job %s not stored", key.c_str());
      const std::string id =
          stored[0]["JOB_ID"].text() + "_" + std::to_string(static_cast<int>(stored[0]["BACKUP_TIME"]));
      insert(db, "ANOMALY_DATA",
             {{"ANOMALY_UNIQUE_ID", {false, id}}, {"ANOMALY_PAYLOAD", {false, "{}"}}, {"ANOMALY_STATE", {false, "0"}},
              {"DETECTION_KEY", {false, key}}, {"CLIENT", {false, wl.key[0]}}, {"DETECTION_TIME", {false, "1600000000"}}});
      if (in.ConsumeBool()) {
        const char* const verdicts[] = {"1", "1", "0", "yes"};
        insert(db, "ANOMALY_DATA_FEEDBACK",
               {{"ANOMALY_UNIQUE_ID", {false, id}},
                {"FEEDBACK", chance(in, 0.1f) ? Cell{true, ""}
                                                                   : Cell{false, verdicts[in.ConsumeIntegralInRange(0, 3)]}}});
      }
    }
  }
  if (chance(in, 0.1f)) {
    insert(db, "ANOMALY_DATA_FEEDBACK", {{"ANOMALY_UNIQUE_ID", odd_cell(in, true)}, {"FEEDBACK", odd_cell(in, true)}});
  }
  db.execute_query("COMMIT");

  {
    std::ofstream ini(w.ini, std::ios::binary | std::ios::trunc);
    switch (in.ConsumeIntegralInRange(0, 3)) {
      case 0: break;
      case 1: ini << in.ConsumeRandomLengthString(512); break;
      default: ini << structured_ini(in, workloads); break;
    }
  }

  const int passes = in.ConsumeBool() ? 2 : 1;
  for (int pass = 1; pass <= passes; ++pass) {
    const Before before = snapshot(db);
    try {
      service.do_detection();
    } catch (...) {
      FUZZ_CHECK(false, "an exception escaped the pass");
    }
    check_after_pass(db, before, queued, pass);
  }
  return 0;
}
