// JsonFields: the members of one JSON object of a tool's output read with
// their types checked, for the JSON-speaking formats. Each read answers the
// member's value or none; the first thing wrong (a required member missing,
// a member of the wrong type) is kept as problem() for the record's skip
// message, and reads after it still work. Never throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "util/Json.h"

class JsonFields {
 public:
  explicit JsonFields(const Json& object) : object_(object) {}

  // A number (integer or real); none when absent or not a number.
  std::optional<double> number(const char* name, bool required);
  // A whole number; none when absent or not an integer.
  std::optional<std::int64_t> whole(const char* name, bool required);
  // A string; none when absent or not a string.
  std::optional<std::string> text(const char* name, bool required);
  // A string, or an integer written as its decimal text (a job id).
  std::optional<std::string> text_or_whole(const char* name, bool required);

  bool ok() const { return problem_.empty(); }
  const std::string& problem() const { return problem_; }

 private:
  // The member, or an empty value after noting its absence when required.
  Json present(const char* name, bool required);
  void wrong_type(const char* name, const char* expected);

  const Json& object_;
  std::string problem_;
};
