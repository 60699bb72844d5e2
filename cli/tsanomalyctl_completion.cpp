// Writes tsanomalyctl's bash completion script to standard output; the
// build runs it, so the installed script follows the commands' declarations.
#include <iostream>

#include "cli/BashCompletion.h"
#include "cli/CommandTable.h"

int main() {
  std::cout << bash_completion_script(all_commands());
  return std::cout ? 0 : 1;
}
