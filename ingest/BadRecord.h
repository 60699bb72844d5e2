// BadRecord: thrown inside a format reader when one record of the tool's
// output cannot become a job; what() says why. The reader catches it at the
// record's edge and reports a skip, so it never leaves the reader.
#pragma once

#include <stdexcept>

struct BadRecord : std::runtime_error {
  using std::runtime_error::runtime_error;
};
