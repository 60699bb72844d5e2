#include "ingest/JsonFields.h"

Json JsonFields::present(const char* name, bool required) {
  Json value = object_.member(name);
  if (!value.valid() && required && problem_.empty()) problem_ = std::string("no \"") + name + "\" member";
  return value;
}

void JsonFields::wrong_type(const char* name, const char* expected) {
  if (problem_.empty()) problem_ = std::string("\"") + name + "\" is not " + expected;
}

std::optional<double> JsonFields::number(const char* name, bool required) {
  const Json value = present(name, required);
  if (!value.valid()) return std::nullopt;
  const auto number = value.as_number();
  if (!number) wrong_type(name, "a number");
  return number;
}

std::optional<std::int64_t> JsonFields::whole(const char* name, bool required) {
  const Json value = present(name, required);
  if (!value.valid()) return std::nullopt;
  const auto number = value.as_integer();
  if (!number) wrong_type(name, "a whole number");
  return number;
}

std::optional<std::string> JsonFields::text(const char* name, bool required) {
  const Json value = present(name, required);
  if (!value.valid()) return std::nullopt;
  auto text = value.as_text();
  if (!text) wrong_type(name, "a string");
  return text;
}

std::optional<std::string> JsonFields::text_or_whole(const char* name, bool required) {
  const Json value = present(name, required);
  if (!value.valid()) return std::nullopt;
  if (auto text = value.as_text()) return text;
  if (auto number = value.as_integer()) return std::to_string(*number);
  wrong_type(name, "a string or a whole number");
  return std::nullopt;
}
