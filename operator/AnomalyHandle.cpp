#include "operator/AnomalyHandle.h"

#include <openssl/evp.h>

#include <algorithm>

namespace {

constexpr char kDigestMark = '~';
constexpr std::size_t kDigestHexLength = 64;

bool is_control(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7F;
}

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

}  // namespace

namespace anomaly_handle {

std::string of(std::string_view id) {
  // An id shaped like a digest is digested too, so no handle means two ids.
  const bool plain = !id.empty() && id.size() <= kLongestPlainId && std::none_of(id.begin(), id.end(), is_control) &&
                     !is_digest(id);
  return plain ? std::string(id) : digest_of(id);
}

bool is_digest(std::string_view handle) {
  return handle.size() == 1 + kDigestHexLength && handle.front() == kDigestMark &&
         std::all_of(handle.begin() + 1, handle.end(), is_lower_hex);
}

std::string digest_of(std::string_view id) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(id.data(), id.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string handle(1, kDigestMark);
  for (unsigned int i = 0; i < length; ++i) {
    handle += kHex[digest[i] >> 4];
    handle += kHex[digest[i] & 0xF];
  }
  return handle;
}

}  // namespace anomaly_handle
