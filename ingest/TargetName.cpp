#include "ingest/TargetName.h"

std::string target_without_password(std::string_view target) {
  const std::size_t scheme_end = target.find("://");
  if (scheme_end == std::string_view::npos) return std::string(target);
  const std::size_t authority = scheme_end + 3;
  const std::size_t authority_end = target.find('/', authority);
  const std::string_view host_part = target.substr(authority, authority_end - authority);
  // The last '@' ends the user information: a password may hold an '@' of its own.
  const std::size_t at = host_part.rfind('@');
  if (at == std::string_view::npos) return std::string(target);
  const std::size_t colon = host_part.substr(0, at).find(':');
  if (colon == std::string_view::npos) return std::string(target);
  return std::string(target.substr(0, authority + colon)) + std::string(target.substr(authority + at));
}
