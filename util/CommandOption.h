// CommandOption: one command-line option as a program declares it (its
// name, value, help text and accepted range), and the options section of a
// --help listed from such declarations. Parsing, --help, the manual pages'
// check and the shell completion all read the one list a program declares.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct WholeRange {
  long long min;
  long long max;
};
struct NumberRange {
  double min;
  double max;
};

struct CommandOption {
  std::string name;                     // e.g. "--limit"
  std::string value_name{};             // e.g. "N"; empty for a flag
  std::string help{};                   // its --help text; each '\n' starts a line under the first
  std::string alias{};                  // another spelling, e.g. "--output" for "-o"
  std::optional<WholeRange> whole{};    // a whole number within this range
  std::optional<NumberRange> number{};  // a number within this range
};

// The options section of a --help: one entry per option, its text in a
// column after the widest name.
std::string options_help(const std::vector<CommandOption>& options);
