// The command table as the completion script reads it: each command names
// as many positional arguments as it takes, so none is offered the wrong kind.
#include "cli/CommandTable.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

TEST(CommandTable, EachCommandNamesEveryPositionalArgumentItTakes) {
  for (const Command& command : all_commands()) {
    EXPECT_EQ(command.syntax.arguments.size(), command.syntax.max_positional) << command.name;
  }
}

TEST(CommandTable, EveryCommandIsFoundByItsNameOnce) {
  std::set<std::string> names;
  for (const Command& command : all_commands()) {
    EXPECT_EQ(find_command(command.name), &command);
    EXPECT_TRUE(names.insert(command.name).second) << command.name;
  }
  EXPECT_EQ(find_command("no-such-command"), nullptr);
}
