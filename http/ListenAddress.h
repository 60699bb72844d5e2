// ListenAddress: the console's --listen ADDR:PORT, read and judged. Only IP
// literals ("127.0.0.1:8470", "[::1]:8470", "0.0.0.0:8470") and the name
// "localhost" are taken, so what is loopback is decided here, never by a
// resolver.
#pragma once

#include <optional>
#include <string>

struct ListenAddress {
  std::string host;  // an IP address, IPv6 without brackets
  int port = 0;      // 0 to 65535; 0 lets the system choose
  bool loopback = false;
};

// None when text is not ADDR:PORT of that form.
std::optional<ListenAddress> parse_listen_address(const std::string& text);
