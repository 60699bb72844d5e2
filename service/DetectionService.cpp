#include "service/DetectionService.h"

#include <unistd.h>

#include <cstdarg>
#include <iostream>

#include "platform/DebugLog.h"
#include "contract/Features.h"
#include "service/PassObserver.h"
#include "service/PendingJob.h"
#include "service/ServiceLoop.h"
#include "storage/Statement.h"
#include "storage/StatementCache.h"
#include "util/Directory.h"
#include "util/Int32.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

constexpr const char* kCategory = kDetectionLogCategory;
constexpr int kOpenFlags = 0x8006;  // read-write | create | no-mutex

}  // namespace

DetectionService::DetectionService(const std::string& database_location, const std::string& database_file_name,
                                   double eps, double min_samples, const std::string& config_file)
    : database_location(database_location),
      database_file_name(database_file_name),
      config_file(config_file),
      eps(eps),
      min_samples(min_samples),
      now([] { return ::time(nullptr); }),
      sleep_for([](unsigned seconds) { ::sleep(seconds); }) {
  try {
    db = std::make_unique<DBAccess>(Path::Combine(database_location, database_file_name), kOpenFlags);
  } catch (const std::exception&) {
    // The file name alone, not the joined path, as operators know the message.
    logmsgf(kLogError, kCategory, "Could not create database %s", database_file_name.c_str());
    throw std::exception();
  }
  db->set_busy_timeout(kBusyTimeoutMs);
  init_feature_list();
}

DetectionService::DetectionService(std::unique_ptr<DBAccess> session, double eps, double min_samples,
                                   const std::string& config_file)
    : config_file(config_file),
      db(std::move(session)),
      eps(eps),
      min_samples(min_samples),
      now([] { return ::time(nullptr); }),
      sleep_for([](unsigned seconds) { ::sleep(seconds); }) {
  init_feature_list();
}

DetectionService::~DetectionService() = default;

std::string DetectionService::pass_log(int level, const char* format, ...) const {
  va_list args;
  va_start(args, format);
  std::string message = format_log_message(format, args);
  va_end(args);
  if (pass_observer != nullptr) {
    pass_observer->logged(level, message);
  } else {
    write_log_message(level, kCategory, message);
  }
  return message;
}

void DetectionService::print(const std::string& text) const {
  if (pass_observer != nullptr) {
    pass_observer->printed(text);
  } else {
    std::cout << text << std::flush;
  }
}

void DetectionService::decide(Job& job, DecidingRule rule, std::string words) {
  job.decision.rule = rule;
  job.decision.words = std::move(words);
}

void DetectionService::init_feature_list() {
  feature_list.clear();
  for (const Feature f : kReportOrder) {
    feature_list.emplace_back(feature_info(f).column);
  }
}

void DetectionService::start() { ServiceLoop(*this, now, sleep_for).run(); }

int DetectionService::min_samples_as_int() const { return truncate_to_int(min_samples); }

int32_t DetectionService::now_as_int() const { return wrap_to_int32(static_cast<int64_t>(now())); }

Statement DetectionService::statement(const char* sql) {
  if (pass_statements != nullptr) {
    return Statement(*pass_statements, sql);
  }
  return Statement(db->handle, sql);
}
