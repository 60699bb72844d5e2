// BoundedLines: a stream read line by line without ever holding more than a
// bound of one line, so a hostile 10 MB line costs the bound and not its
// length. Line-based formats share it. Throws std::runtime_error only when
// the stream itself fails.
#pragma once

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

class BoundedLines {
 public:
  // Longer than any line a backup tool writes for one job or status.
  static constexpr std::size_t kMaxLineBytes = 1 << 20;

  explicit BoundedLines(std::istream& in, std::size_t max_bytes = kMaxLineBytes);

  // The next line, without its '\n', in line; false at the end of the input.
  // A line longer than the bound is read to its end and dropped: line is
  // left empty and too_long() is true.
  bool next(std::string& line);
  bool too_long() const { return too_long_; }
  // The 1-based number of the line next() returned last.
  std::size_t number() const { return number_; }
  // "line N", for messages about the line next() returned last.
  std::string where() const;

 private:
  std::istream& in_;
  std::vector<char> buffer_;
  std::size_t number_ = 0;
  bool too_long_ = false;
};
