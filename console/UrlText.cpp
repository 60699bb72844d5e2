#include "console/UrlText.h"

#include "operator/AnomalyHandle.h"

namespace {
// Letters and digits of ASCII only, whatever the locale.
bool unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}
}  // namespace

std::string percent_encode(std::string_view text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (unreserved(byte)) {
      out += c;
    } else {
      out += '%';
      out += kDigits[byte >> 4];
      out += kDigits[byte & 0xF];
    }
  }
  return out;
}

std::string anomaly_path(std::string_view id) {
  return std::string(kAnomalyPathPrefix) + percent_encode(anomaly_handle::of(id));
}

std::string workload_path_of(std::string_view anomaly_id) { return "/workloads?anomaly=" + percent_encode(anomaly_id); }
