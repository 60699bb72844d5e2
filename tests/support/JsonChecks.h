// JSON helpers for tests that read documents the programs write: parse one
// (a test failure when it is not JSON) and read members without crashing on
// what is absent. Header-only; gtest is required.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>
#include <vector>

namespace tsanomaly_test {

struct JsonDeleter {
  void operator()(json_t* json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

inline JsonPtr parse(const std::string& text) {
  json_error_t error;
  JsonPtr root(json_loads(text.c_str(), 0, &error));
  EXPECT_NE(root, nullptr) << "not JSON: " << text << " (" << error.text << ")";
  return root;
}

// The string member of an object, or "<absent>" / "<not a string>".
inline std::string string_member(const json_t* object, const char* key) {
  const json_t* member = json_object_get(object, key);
  if (member == nullptr) return "<absent>";
  if (!json_is_string(member)) return "<not a string>";
  return json_string_value(member);
}

// Member names in document order.
inline std::vector<std::string> member_names(const json_t* object) {
  std::vector<std::string> names;
  const char* key;
  json_t* value;
  json_object_foreach(const_cast<json_t*>(object), key, value) { names.push_back(key); }
  return names;
}

}  // namespace tsanomaly_test
