// PassSettings: the configuration one detection pass runs with, read afresh
// from the INI file at the start of every pass and clamped into the ranges
// the pass works in. Reading never fails on bad values (they parse as the
// product always parsed them); only building the Configuration can throw.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

struct PassSettings {
  // Names are held lower-cased; jobs' names are lower-cased before lookup.
  std::map<std::string, std::set<std::string>> excluded_client_policies;
  std::set<std::string> excluded_clients;
  std::set<std::string> disabled_policy_types;
  std::map<std::string, std::set<std::string>> disabled_features;  // by policy type
  int sensitivity = 0;       // percent, -99 to 100
  int min_observations = 0;  // at least 30
  int days_to_ignore = 0;    // long-gap rule, in days, at least 1
  int max_observations = 0;  // at least 1
  bool log_model_data = false;
  // Opt-in: a job that gets the two-feature fallback training set is judged
  // on those two features too, instead of offering all five and failing.
  bool judge_on_fallback_features = false;
  int32_t day_gap_seconds = 0;  // days_to_ignore in seconds, 32-bit like the product

  // Reads config_file (none or unreadable: the built-in defaults).
  static PassSettings read(const std::string& config_file);

  // The lower-case feature names disabled for a policy type (any case).
  std::set<std::string> disabled_features_for(const std::string& policy_type) const;
  // eps scaled by the sensitivity, in the product's order of operations.
  double adjusted_eps(double eps) const;
  // How many features (in matrix order) the job's own row offers for a
  // training set of this kind.
  int observed_feature_count(int full_feature_set) const;
};
