#include "util/CommandOption.h"

#include <algorithm>

namespace {

std::string label(const CommandOption& option) {
  std::string text = option.name;
  if (!option.alias.empty()) text += ", " + option.alias;
  if (!option.value_name.empty()) text += " " + option.value_name;
  return text;
}

}  // namespace

std::string options_help(const std::vector<CommandOption>& options) {
  std::size_t width = 0;
  for (const CommandOption& option : options) width = std::max(width, label(option).size());
  const std::string indent(2 + width + 2, ' ');
  std::string text;
  for (const CommandOption& option : options) {
    const std::string name = label(option);
    text += "  " + name + std::string(width - name.size() + 2, ' ');
    for (const char c : option.help) text += c == '\n' ? "\n" + indent : std::string(1, c);
    text += "\n";
  }
  return text;
}
