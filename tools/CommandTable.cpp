#include "tools/CommandTable.h"

#include <cstring>

#include "tools/DetectCommand.h"

namespace {

const Command kCommands[] = {
    {"detect", "run one detection pass now", kDetectHelp, run_detect},
};

}  // namespace

const Command* find_command(const char* name) {
  for (const Command& command : kCommands) {
    if (std::strcmp(command.name, name) == 0) {
      return &command;
    }
  }
  return nullptr;
}

void print_usage(std::ostream& out) {
  out << "usage: tsanomalyctl COMMAND [OPTIONS]\n\ncommands:\n";
  for (const Command& command : kCommands) {
    out << "  " << command.name << std::string(12 - std::strlen(command.name), ' ') << command.summary << "\n";
  }
  out << "\nRun 'tsanomalyctl COMMAND --help' for a command's options.\n";
}
