// The operator tool's commands: a name, a one-line summary and the function
// that runs it (given its own name as argument 0).
#pragma once

#include <ostream>

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
};

// nullptr when no command has that name.
const Command* find_command(const char* name);
void print_usage(std::ostream& out);
