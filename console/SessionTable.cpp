#include "console/SessionTable.h"

#include <algorithm>

#include "console/AccessToken.h"

namespace {
constexpr std::size_t kIdBytes = 32;
}

SessionTable::Opened SessionTable::open() {
  Opened opened{access_token::random_hex(kIdBytes), access_token::random_hex(kIdBytes)};
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  drop_expired(now);
  if (sessions_.size() >= kMaxSessions) {
    sessions_.erase(std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
      return a.second.opened < b.second.opened;
    }));
  }
  sessions_[opened.id] = Session{opened.csrf, now};
  return opened;
}

std::optional<std::string> SessionTable::csrf_of(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  drop_expired(std::chrono::steady_clock::now());
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return std::nullopt;
  return found->second.csrf;
}

void SessionTable::drop_expired(std::chrono::steady_clock::time_point now) {
  std::erase_if(sessions_, [&](const auto& entry) { return now - entry.second.opened >= kLifetime; });
}
