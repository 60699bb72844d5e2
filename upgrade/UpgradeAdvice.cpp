#include "upgrade/UpgradeAdvice.h"

namespace {

using Remedy = SchemaFinding::Remedy;

// A path as one shell word, so the printed command can be pasted. Control
// characters would act on the terminal: they are shown as '?'.
std::string shell_word(const std::string& text) {
  const bool plain = !text.empty() && text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                                             "0123456789_./-+:,=@%") == std::string::npos;
  if (plain) return text;
  std::string quoted = "'";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += (byte < 0x20 || byte == 0x7f) ? '?' : c;
    }
  }
  return quoted + "'";
}

}  // namespace

std::string upgrade_command(const std::string& path, Remedy remedy) {
  const std::string command = "tsanomalyctl upgrade " + shell_word(path);
  switch (remedy) {
    case Remedy::create:
      return command + " --apply";
    case Remedy::switch_to_wal:
      return command + " --apply --wal";
    case Remedy::by_hand:
      break;
  }
  return command;
}

