// TimeText: how the operator tool reads points in time an operator types:
// "YYYY-MM-DD" or "YYYY-MM-DD HH:MM[:SS]", local time. (They are shown with
// local_time_text, platform/LocalTime.h.)
#pragma once

#include <ctime>
#include <optional>
#include <string>

class TimeText {
 public:
  // Empty when the text is not one of the accepted forms or not a real date.
  static std::optional<time_t> parse_local(const std::string& text);
};
