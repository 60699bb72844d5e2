#include "service/PassSettings.h"

#include <algorithm>

#include "config/Configuration.h"
#include "contract/Features.h"
#include "storage/Value.h"
#include "util/Int32.h"
#include "util/Text.h"
#include "util/TimeUnits.h"

namespace {

constexpr int kMinSensitivity = -99;
constexpr int kMaxSensitivity = 100;
constexpr int kLeastMinObservations = 30;
constexpr int kDefaultDaysToIgnore = 365;
constexpr int kDefaultMaxObservations = 3000;

// Settings text read as the service always has: strtol, base 10, then
// truncated to 32 bits.
int setting_as_int(const Configuration& config, const char* section, const char* key) {
  return static_cast<int>(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value(config.get_config(section, key)));
}

}  // namespace

PassSettings PassSettings::read(const std::string& config_file) {
  const Configuration config(config_file, 1);
  PassSettings settings;
  config.get_config_dynamic_keys_multiple_values("EXCLUDE_CLIENT_POLICY", settings.excluded_client_policies);
  config.get_config_multiple_values("EXCLUDE_CLIENTS", "CLIENT_NAME", settings.excluded_clients);
  config.get_config_multiple_values("DISABLE_POLICY_TYPE", "POLICY_TYPE", settings.disabled_policy_types);
  config.get_config_dynamic_keys_multiple_values("DISABLE_FEATURE_PER_POLICY_TYPE", settings.disabled_features);
  // The range is asymmetric on purpose: at -99 eps shrinks to a hundredth,
  // never to zero or below.
  settings.sensitivity = std::clamp(setting_as_int(config, "ANOMALY_DETECTION_SENSITIVITY", "SENSITIVITY_PERCENTAGE"),
                                    kMinSensitivity, kMaxSensitivity);
  settings.min_observations =
      std::max(setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "MIN_OBSERVATIONS_FOR_TRAINING"), kLeastMinObservations);
  settings.days_to_ignore = setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY");
  if (settings.days_to_ignore <= 0) {
    settings.days_to_ignore = kDefaultDaysToIgnore;
  }
  settings.max_observations = setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "MAX_OBSERVATIONS_FOR_TRAINING");
  if (settings.max_observations <= 0) {
    settings.max_observations = kDefaultMaxObservations;
  }
  settings.log_model_data = setting_as_int(config, "META_DATA", "LOG_MODEL_DATA") == 1;
  settings.judge_on_fallback_features =
      setting_as_int(config, "ANOMALY_MODEL_SETTINGS", "JUDGE_ON_FALLBACK_FEATURES") == 1;
  // 32-bit like the product has always computed it: a huge day count wraps.
  settings.day_gap_seconds = wrap_to_int32(static_cast<int64_t>(settings.days_to_ignore) * kSecondsPerDay);
  return settings;
}

std::set<std::string> PassSettings::disabled_features_for(const std::string& policy_type) const {
  const auto found = disabled_features.find(text::to_lower(policy_type));
  return found != disabled_features.end() ? found->second : std::set<std::string>{};
}

double PassSettings::adjusted_eps(double eps) const {
  return eps + eps * (static_cast<double>(sensitivity) / 100.0);
}

int PassSettings::observed_feature_count(int full_feature_set) const {
  // Without the setting the job always offers all five, whichever set was
  // chosen: with the fallback the matrix is then ragged and standardisation
  // rejects it, so the job stays pending.
  return judge_on_fallback_features ? feature_set_size(full_feature_set) : kFeatureCount;
}
