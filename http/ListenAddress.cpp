#include "http/ListenAddress.h"

#include <arpa/inet.h>

#include <cstdlib>

std::optional<ListenAddress> parse_listen_address(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size() || text.size() - colon > 6) return std::nullopt;
  std::string host = text.substr(0, colon);
  const std::string port_text = text.substr(colon + 1);
  if (port_text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  ListenAddress address;
  address.port = std::atoi(port_text.c_str());
  if (address.port > 65535) return std::nullopt;
  if (host == "localhost") host = "127.0.0.1";
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (bracketed) {
    host = host.substr(1, host.size() - 2);
    in6_addr v6{};
    if (inet_pton(AF_INET6, host.c_str(), &v6) != 1) return std::nullopt;
    address.loopback = IN6_IS_ADDR_LOOPBACK(&v6);
  } else {
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) != 1) return std::nullopt;
    address.loopback = (ntohl(v4.s_addr) >> 24) == 127;
  }
  address.host = host;
  return address;
}
