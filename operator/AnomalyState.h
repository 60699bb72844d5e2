// AnomalyState: where an anomaly stands with the operator, as the console
// shows it and filters by it. The numbers are the ones the console's SQL
// computes (console_sql::state_of); the slugs are what URLs, JSON and
// metrics labels carry.
#pragma once

#include <array>
#include <optional>
#include <string_view>

enum class AnomalyState : int { open = 0, false_positive_waiting = 1, false_positive_learned = 2, acknowledged = 3 };
inline constexpr int kAnomalyStateCount = 4;

struct AnomalyStateInfo {
  AnomalyState state;
  const char* slug;   // "open", "false-positive-waiting", ...
  const char* label;  // for people
};

inline constexpr std::array<AnomalyStateInfo, kAnomalyStateCount> kAnomalyStates{{
    {AnomalyState::open, "open", "Open"},
    {AnomalyState::false_positive_waiting, "false-positive-waiting", "False positive, waiting for the next pass"},
    {AnomalyState::false_positive_learned, "false-positive-learned", "False positive, learned"},
    {AnomalyState::acknowledged, "acknowledged", "Acknowledged"},
}};

inline constexpr const AnomalyStateInfo& state_info(AnomalyState state) {
  return kAnomalyStates[static_cast<int>(state)];
}

// The state with this slug, or none.
inline std::optional<AnomalyState> state_by_slug(std::string_view slug) {
  for (const AnomalyStateInfo& info : kAnomalyStates) {
    if (slug == info.slug) return info.state;
  }
  return std::nullopt;
}

// A state number from the database; anything unexpected reads as open.
inline AnomalyState state_from_number(long long n) {
  return n >= 0 && n < kAnomalyStateCount ? static_cast<AnomalyState>(n) : AnomalyState::open;
}
