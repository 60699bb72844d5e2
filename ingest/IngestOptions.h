// IngestOptions: what the operator's command line says about the jobs of
// one ingest run: names that override the tool's own (or fill what its
// output lacks), the end time of a job whose output carries none, and
// whether the jobs go straight into the history. Plain data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct IngestOptions {
  std::optional<std::string> client{};
  std::optional<std::string> policy{};
  std::optional<std::string> policy_type{};
  std::optional<std::string> schedule_name{};
  std::optional<std::string> storage{};
  std::optional<std::string> asset{};
  // The end of a job whose output names no time (epoch seconds).
  std::int64_t default_end_time = 0;
  // The client of a job that names none: the machine's host name.
  std::string default_client;
  // Accepted history (HIST_DATA, MODE 1) instead of the queue.
  bool as_history = false;
};
