#include "service/TrainingRecords.h"

#include <cstring>

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

namespace {

constexpr int kUserVerdictSlot = kFeatureCount;

// The slot a column's cell fills, or -1 for a column the pass does not use.
int slot_of(const char* column) {
  for (int f = 0; f < kFeatureCount; ++f) {
    if (std::strcmp(column, kFeatures[f].column) == 0) return f;
  }
  return std::strcmp(column, TrainingRecords::kUserVerdictName) == 0 ? kUserVerdictSlot : -1;
}

}  // namespace

TrainingRecords TrainingRecords::of(const Rows& rows) {
  TrainingRecords records;
  const char decimal_point = Value::decimal_point();
  for (const auto& row : rows) {
    Texts texts;
    for (int slot = 0; slot <= kUserVerdictSlot; ++slot) {
      const auto found = row.find(slot < kFeatureCount ? kFeatures[slot].column : kUserVerdictName);
      texts[slot] = found != row.end() ? found->second.text().c_str() : "";
    }
    records.append(texts, decimal_point);
  }
  return records;
}

void TrainingRecords::read(DBAccess& db, Statement& st) {
  // Where each column goes, worked out from the first record: the columns
  // of one statement are the same for all its records. Like a Row, a
  // column name met twice keeps the later cell.
  std::vector<int> slots;
  bool mapped = false;
  const char decimal_point = Value::decimal_point();
  db.visit_records_prepared(st, [&](const RecordCursor& record) {
    const int count = record.cell_count();
    if (!mapped) {
      slots.resize(static_cast<std::size_t>(count));
      for (int i = 0; i < count; ++i) slots[static_cast<std::size_t>(i)] = slot_of(record.column_name(i));
      mapped = true;
    }
    Texts texts;
    texts.fill("");
    for (int i = 0; i < count; ++i) {
      const int slot = slots[static_cast<std::size_t>(i)];
      if (slot >= 0) texts[static_cast<std::size_t>(slot)] = record.text(i);
    }
    append(texts, decimal_point);
  });
}

void TrainingRecords::clear() {
  features_.clear();
  user_verdicts_.clear();
}

void TrainingRecords::append(const Texts& texts, char decimal_point) {
  std::array<double, kFeatureCount>& features = features_.emplace_back();
  for (int f = 0; f < kFeatureCount; ++f) features[f] = Value::to_double(texts[f], decimal_point);
  user_verdicts_.push_back(Value::to_int(texts[kUserVerdictSlot]));
}
