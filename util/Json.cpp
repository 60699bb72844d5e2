#include "util/Json.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "util/Text.h"

Json::Json(Json&& other) noexcept : value_(other.release()) {}

Json& Json::operator=(Json&& other) noexcept {
  if (this != &other) {
    json_decref(value_);
    value_ = other.release();
  }
  return *this;
}

Json::~Json() { json_decref(value_); }

json_t* Json::release() { return std::exchange(value_, nullptr); }

Json Json::object() { return Json(json_object()); }
Json Json::array() { return Json(json_array()); }

Json Json::string(std::string_view text) {
  const std::string repaired = text::as_utf8(text);
  return Json(json_string(repaired.c_str()));
}

Json Json::integer(long long value) { return Json(json_integer(static_cast<json_int_t>(value))); }
Json Json::real(double value) { return Json(json_real(value)); }
Json Json::boolean(bool value) { return Json(json_boolean(value)); }
Json Json::null() { return Json(json_null()); }

Json Json::parse(const std::string& document, std::string* error) {
  json_error_t failure;
  json_t* parsed = json_loads(document.c_str(), 0, &failure);
  if (parsed == nullptr && error != nullptr) {
    *error = "line " + std::to_string(failure.line) + ", column " + std::to_string(failure.column) + ": " +
             failure.text;
  }
  return Json(parsed);
}

Json Json::parse_first(std::string_view text, std::size_t* consumed, std::string* error) {
  json_error_t failure;
  json_t* parsed = json_loadb(text.data(), text.size(), JSON_DISABLE_EOF_CHECK | JSON_DECODE_INT_AS_REAL, &failure);
  *consumed = parsed != nullptr ? static_cast<std::size_t>(failure.position) : 0;
  if (parsed == nullptr && error != nullptr) {
    *error = "line " + std::to_string(failure.line) + ", column " + std::to_string(failure.column) + ": " +
             failure.text;
  }
  return Json(parsed);
}

Json Json::parsed_or_string(const std::string& stored) {
  Json parsed = parse(text::as_utf8(stored));
  return parsed.valid() ? std::move(parsed) : string(stored);
}

void Json::set(const char* name, Json value) {
  if (value.valid()) json_object_set_new(value_, name, value.release());
}

void Json::append(Json value) {
  if (value.valid()) json_array_append_new(value_, value.release());
}

Json Json::member(const char* name) const { return Json(json_incref(json_object_get(value_, name))); }

std::size_t Json::array_size() const { return json_array_size(value_); }

Json Json::element(std::size_t index) const { return Json(json_incref(json_array_get(value_, index))); }

std::optional<std::string> Json::as_text() const {
  if (!json_is_string(value_)) return std::nullopt;
  return std::string(json_string_value(value_));
}

std::optional<long long> Json::as_integer() const {
  if (!json_is_integer(value_)) return std::nullopt;
  return static_cast<long long>(json_integer_value(value_));
}

std::optional<double> Json::as_number() const {
  if (!json_is_number(value_)) return std::nullopt;
  return json_number_value(value_);
}

namespace {

// Outside strings JSON allows only ASCII blanks, so every U+2028/2029 in the
// text sits inside a string, where its escape means the same character.
std::string with_separators_escaped(std::string text) {
  static constexpr std::pair<std::string_view, std::string_view> kEscapes[] = {
      {"\xE2\x80\xA8", "\\u2028"}, {"\xE2\x80\xA9", "\\u2029"}};
  for (const auto& [raw, escaped] : kEscapes) {
    for (std::size_t at = text.find(raw); at != std::string::npos; at = text.find(raw, at + escaped.size())) {
      text.replace(at, raw.size(), escaped);
    }
  }
  return text;
}

}  // namespace

std::string Json::dump(JsonFormat format) const {
  std::size_t flags = JSON_REAL_PRECISION(format.real_precision);
  if (format.compact) flags |= JSON_COMPACT;
  if (format.keep_order) flags |= JSON_PRESERVE_ORDER;
  const std::unique_ptr<char, decltype(&std::free)> text(value_ != nullptr ? json_dumps(value_, flags) : nullptr,
                                                          &std::free);
  if (!text) return std::string();
  return format.escape_separators ? with_separators_escaped(text.get()) : std::string(text.get());
}
