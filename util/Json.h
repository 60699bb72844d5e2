// A JSON value owned by RAII over Jansson: built member by member, dumped to
// text, parsed from text, and read one member at a time. Move-only; a value
// that failed to parse or was moved from is empty, and reading it yields none.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

struct json_t;

// How dump() writes a value; the defaults are Jansson's own.
struct JsonFormat {
  bool compact = false;     // no blank after ',' and ':'
  bool keep_order = false;  // members in the order they were set
  int real_precision = 0;   // significant digits of a real, 1 to 31; 0 is Jansson's 17
  // U+2028 and U+2029 written as \u2028 and \u2029: valid JSON either way,
  // but raw they end a line in JavaScript and in the terminals and logs the
  // text may reach. Off for stored documents, which keep their bytes.
  bool escape_separators = false;
};

class Json {
 public:
  Json() = default;
  Json(Json&& other) noexcept;
  Json& operator=(Json&& other) noexcept;
  Json(const Json&) = delete;
  Json& operator=(const Json&) = delete;
  ~Json();

  static Json object();
  static Json array();
  // Text that is not UTF-8 keeps its readable part: each stray byte becomes
  // U+FFFD, so a name from an old Latin-1 client never drops its member. The
  // text ends at its first NUL byte, as the C text it came from would.
  static Json string(std::string_view text);
  static Json integer(long long value);
  static Json real(double value);
  static Json boolean(bool value);
  static Json null();

  // An object or array read from document (up to its first NUL byte, as the
  // C text it is stored as); empty when it is not one, with Jansson's reason
  // and position in *error when error is given. Text that is not UTF-8, or
  // that escapes a NUL (\u0000), fails: no text read from it holds a NUL.
  static Json parse(const std::string& document, std::string* error = nullptr);
  // A stored document embedded as itself when it parses once repaired to
  // UTF-8, or else as a string, so that no stored text is ever lost.
  static Json parsed_or_string(const std::string& stored);
  // The first object or array of text, for a stream of documents written one
  // after another; *consumed is how many bytes of text it took (0 on
  // failure). Every number is read as a real, so an integer too big for 64
  // bits is a value the caller can range-check rather than a failure of the
  // whole document. Same UTF-8 and NUL rules as parse().
  static Json parse_first(std::string_view text, std::size_t* consumed, std::string* error = nullptr);

  bool valid() const { return value_ != nullptr; }

  // Sets a member of an object / appends to an array; does nothing when this
  // is not one, or when value is empty (the member is left out).
  void set(const char* name, Json value);
  void append(Json value);

  // The member called name, sharing the value with this one; empty when this
  // is not an object or has no such member.
  Json member(const char* name) const;
  // The elements of an array, by index, sharing their values with this one;
  // 0 / empty when this is not an array or the index is past its end.
  std::size_t array_size() const;
  Json element(std::size_t index) const;
  // This value when it has that type; none otherwise.
  std::optional<std::string> as_text() const;
  std::optional<long long> as_integer() const;
  std::optional<double> as_number() const;  // an integer or a real

  // The value as JSON text; empty text for an empty value.
  std::string dump(JsonFormat format = {}) const;

 private:
  explicit Json(json_t* owned) : value_(owned) {}
  json_t* release();

  json_t* value_ = nullptr;
};
