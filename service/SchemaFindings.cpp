#include "service/SchemaFindings.h"

#include <exception>

#include "platform/DebugLog.h"
#include "schema/SchemaAudit.h"
#include "service/ServiceOptions.h"

void log_unknown_schema_objects(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db) {
  try {
    for (const SchemaObject& object : unknown_schema_objects(db)) {
      logmsgf(4, ServiceOptions::kProgramName,
              "Database holds %s %s, which the detector's schema does not define; it runs with the rights of every "
              "program that writes the database.",
              object.type.c_str(), object.name.c_str());
    }
  } catch (const std::exception&) {
  }
}
