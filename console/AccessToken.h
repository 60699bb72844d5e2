// AccessToken: the console's shared secret. It lives in a file only its
// owner may read; on first start the file is created with a fresh random
// token. Reading refuses anything an attacker could have planted or read
// (a link, a device, a file of another user or open to others, a token too
// short or too long), with a message for the operator (std::runtime_error).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace access_token {

// Hex text of n bytes from the kernel's random source.
std::string random_hex(std::size_t n);

struct Loaded {
  std::string token;
  bool created = false;  // the file did not exist and was made now
};
Loaded load_or_create(const std::string& path);
// The token in an existing file, with the same checks.
std::string read(const std::string& path);

// Compares in time that depends on the lengths only, not on where the
// texts first differ.
bool equal(std::string_view a, std::string_view b);

}  // namespace access_token
