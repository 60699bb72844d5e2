// SessionTable: the browser sessions the console has opened. Each has a CSRF
// token that every state-changing form echoes, and a proof that the signed-in
// page claims once, right after sign-in, and keeps where only pages of the
// console's own origin (scheme, host and port) can read it: a session cookie
// replayed by a listener on another port is not enough to act. Sessions live
// in memory only (a restart asks for the token URL again), end after
// kIdleLimit unused or kAbsoluteLimit after sign-in, on end() and end_all(),
// and the oldest are dropped beyond kMaxSessions, so no client can grow the
// table without bound. Safe to use from several threads.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

class SessionTable {
 public:
  static constexpr std::size_t kMaxSessions = 256;
  static constexpr std::chrono::minutes kIdleLimit{30};
  static constexpr std::chrono::hours kAbsoluteLimit{8};
  // The proof may be claimed only this long after sign-in.
  static constexpr std::chrono::seconds kClaimWindow{60};

  using Clock = std::chrono::steady_clock;
  // clock: the time the limits are judged by (a test's own, to move it on).
  explicit SessionTable(std::function<Clock::time_point()> clock = Clock::now) : clock_(std::move(clock)) {}

  struct Opened {
    std::string id;    // the cookie's value
    std::string csrf;  // the forms' token
  };
  Opened open();
  // The CSRF token of a live session, or none for an unknown or ended id.
  // Counts as a use of the session.
  std::optional<std::string> csrf_of(const std::string& id);
  // The session's proof, to its first claim within kClaimWindow; none after.
  std::optional<std::string> claim_proof(const std::string& id);
  // Whether proof is the live session's, claimed already.
  bool proven(const std::string& id, const std::string& proof);
  void end(const std::string& id);
  void end_all();

 private:
  struct Session {
    std::string csrf;
    std::string proof;
    bool claimed = false;
    Clock::time_point opened, used;
  };
  // The live session of id (its use recorded), or null; the lock is held.
  Session* live(const std::string& id);

  std::function<Clock::time_point()> clock_;
  std::mutex mutex_;
  std::map<std::string, Session> sessions_;
};
