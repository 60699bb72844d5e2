// TimeText: how the operator tool shows and reads points in time: local
// "YYYY-MM-DD HH:MM:SS" out, "YYYY-MM-DD" or "YYYY-MM-DD HH:MM[:SS]" in.
#pragma once

#include <ctime>
#include <optional>
#include <string>

class TimeText {
 public:
  static std::string local(time_t t);
  // Empty when the text is not one of the accepted forms or not a real date.
  static std::optional<time_t> parse_local(const std::string& text);
};
