#include "console/SessionTable.h"

#include <algorithm>

#include "console/AccessToken.h"

namespace {
constexpr std::size_t kIdBytes = 32;
}

SessionTable::Opened SessionTable::open() {
  Opened opened{access_token::random_hex(kIdBytes), access_token::random_hex(kIdBytes)};
  const auto now = clock_();
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(sessions_, [&](const auto& entry) {
    return now - entry.second.used >= kIdleLimit || now - entry.second.opened >= kAbsoluteLimit;
  });
  if (sessions_.size() >= kMaxSessions) {
    sessions_.erase(std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
      return a.second.opened < b.second.opened;
    }));
  }
  sessions_[opened.id] = Session{opened.csrf, access_token::random_hex(kIdBytes), false, now, now};
  return opened;
}

SessionTable::Session* SessionTable::live(const std::string& id) {
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return nullptr;
  const auto now = clock_();
  Session& session = found->second;
  if (now - session.used >= kIdleLimit || now - session.opened >= kAbsoluteLimit) {
    sessions_.erase(found);
    return nullptr;
  }
  session.used = now;
  return &session;
}

std::optional<std::string> SessionTable::csrf_of(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Session* session = live(id);
  if (session == nullptr) return std::nullopt;
  return session->csrf;
}

std::optional<std::string> SessionTable::claim_proof(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  Session* session = live(id);
  if (session == nullptr || session->claimed || clock_() - session->opened > kClaimWindow) return std::nullopt;
  session->claimed = true;
  return session->proof;
}

bool SessionTable::proven(const std::string& id, const std::string& proof) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Session* session = live(id);
  return session != nullptr && session->claimed && access_token::equal(proof, session->proof);
}

void SessionTable::end(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(id);
}

void SessionTable::end_all() {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.clear();
}
