// tsanomalyctl: the operator's tool. One command per verb; each explains
// itself with --help.
#include <cstring>
#include <iostream>
#include <string>

#include "cli/CommandTable.h"
#include "schema/SchemaVersion.h"
#include "util/ProgramVersion.h"

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    print_usage(std::cout);
    return argc < 2 ? 2 : 0;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::cout << version_text("tsanomalyctl", anomaly_schema::kSchemaVersion) << "\n";
    return 0;
  }
  const Command* command = find_command(argv[1]);
  if (command == nullptr) {
    std::cerr << "tsanomalyctl: unknown command '" << argv[1] << "'\n";
    print_usage(std::cerr);
    return 2;
  }
  // The command sees its own name as argument 0.
  return command->run(argc - 1, argv + 1);
}
