// SessionTable: the browser sessions the console has opened, each with its
// own CSRF token that every state-changing form must echo. Sessions live in
// memory only (a restart asks for the token URL again), expire after
// kLifetime, and the oldest are dropped beyond kMaxSessions, so no client
// can grow the table without bound. Safe to use from several threads.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

class SessionTable {
 public:
  static constexpr std::size_t kMaxSessions = 256;
  static constexpr std::chrono::hours kLifetime{12};

  struct Opened {
    std::string id;    // the cookie's value
    std::string csrf;  // the forms' token
  };
  Opened open();
  // The CSRF token of a live session, or none for an unknown or expired id.
  std::optional<std::string> csrf_of(const std::string& id);

 private:
  struct Session {
    std::string csrf;
    std::chrono::steady_clock::time_point opened;
  };
  void drop_expired(std::chrono::steady_clock::time_point now);

  std::mutex mutex_;
  std::map<std::string, Session> sessions_;
};
