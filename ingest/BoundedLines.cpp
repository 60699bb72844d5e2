#include "ingest/BoundedLines.h"

#include <limits>
#include <stdexcept>

BoundedLines::BoundedLines(std::istream& in, std::size_t max_bytes) : in_(in), buffer_(max_bytes + 2) {}

bool BoundedLines::next(std::string& line) {
  line.clear();
  too_long_ = false;
  if (!in_.good()) return false;
  // getline stores at most size - 1 bytes; the buffer holds one byte more
  // than the bound, so a line that fills it is known to be too long.
  in_.getline(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
  if (in_.bad()) throw std::runtime_error("cannot read the input");
  const std::streamsize got = in_.gcount();
  if (got == 0 && in_.eof()) return false;
  ++number_;
  if (in_.fail() && !in_.eof()) {
    in_.clear();
    in_.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    too_long_ = true;
    return true;
  }
  // The count, not the stored text, gives the length: a NUL byte in the
  // line is kept, for the format to refuse.
  const std::size_t length = static_cast<std::size_t>(got) - (in_.eof() ? 0 : 1);
  if (length > buffer_.size() - 2) {
    too_long_ = true;
    return true;
  }
  line.assign(buffer_.data(), length);
  return true;
}

std::string BoundedLines::where() const { return "line " + std::to_string(number_); }
