// JobKey: reading a job's cells and binding its workload key, in the column
// orders the detector's statements expect. A column the record lacks reads
// as an empty cell, as a Row lookup would; nothing here throws except the
// binds of a failing Statement.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "storage/Statement.h"
#include "storage/Value.h"

namespace job_key {

using Row = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Statement = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using Value = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;
using Texts = std::vector<std::string>;

// The storage name that stands in the key where the fallback training set
// across storages is used, and the asset of a job tied to no single asset.
inline constexpr const char* kNoStorage = "NA";

// The record's cell, or an empty one when it has no such column.
Value cell(const Row& row, const std::string& column);

// The record's cells as text, in the order of the columns given.
Texts texts_of(const Row& row, std::initializer_list<const char*> columns);

// The workload key in the order of the history queries (APP_TYPE before
// SCHEDULE_TYPE), without storage and asset ...
Texts history_key(const Row& job);
// ... and in the order of the model-parameter table (APP_TYPE after
// SCHEDULE_NAME, then storage and asset).
Texts model_key(const Row& job);
// Where the storage and asset stand in model_key.
inline constexpr std::size_t kModelKeyStorage = 6;
inline constexpr std::size_t kModelKeyAsset = 7;

Texts plus(Texts head, std::initializer_list<std::string> tail);

// Binds texts to placeholders first, first + 1, ...; returns the next index.
int bind_texts(Statement& st, const Texts& texts, int first = 1);

}  // namespace job_key
