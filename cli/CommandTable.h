// The operator tool's commands: a name, a one-line summary, the function
// that runs it (given its own name as argument 0) and the arguments it
// declares, which the shell completion is generated from.
#pragma once

#include <ostream>
#include <span>

#include "cli/CommandArgs.h"

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
  const CommandArgs::Syntax& syntax;
};

// Every command, in the order the usage lists them.
std::span<const Command> all_commands();

// nullptr when no command has that name.
const Command* find_command(const char* name);
void print_usage(std::ostream& out);
