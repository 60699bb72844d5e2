// CommandArgs: the arguments of one tsanomalyctl command, checked against
// the options the command declares once (CommandOption), from which its
// --help lists them too. Options are "--name value", "--name=value" or bare
// "--flag"; everything else is positional. Every problem in the arguments
// becomes an error message for the operator; reading an option the command
// never declared is a bug in the command and throws std::logic_error.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "util/CommandOption.h"

class CommandArgs {
 public:
  struct Syntax {
    std::vector<CommandOption> options;
    std::size_t min_positional = 0;
    std::size_t max_positional = 0;
    // The positional arguments' names, as the usage line writes them (e.g.
    // "DB"): the shell completion offers file names for a DB.
    std::vector<std::string> arguments{};
  };
  // The bare shape, for a command without help texts.
  struct Grammar {
    std::set<std::string> flags;        // e.g. "--json", "--force"
    std::set<std::string> valued;       // e.g. "--client", "-o"
    std::size_t min_positional = 0;
    std::size_t max_positional = 0;
  };

  // argv[0] is the command's name. "--help" / "-h" anywhere sets help().
  CommandArgs(int argc, char** argv, Syntax syntax);
  CommandArgs(int argc, char** argv, const Grammar& grammar);

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  bool help() const { return help_; }

  const std::vector<std::string>& positional() const { return positional_; }
  bool flag(const std::string& name) const;
  std::optional<std::string> value(const std::string& name) const;

  // The option as a whole number / a number within its declared range, or
  // within [min, max]; fallback when it is absent. A malformed or
  // out-of-range value records an error (see ok()).
  long long integer(const std::string& name, long long fallback);
  long long integer(const std::string& name, long long fallback, long long min, long long max);
  double number(const std::string& name, double fallback);
  double number(const std::string& name, double fallback, double min, double max);

  // What every command does first: with --help prints help_text to standard
  // output and answers 0; after a usage error prints it, with a pointer to
  // --help, to standard error and answers 2; otherwise answers nothing and
  // the command goes on. Call it again after reading numeric options.
  std::optional<int> help_or_usage_error(const std::string& command, const std::string& help_text) const;

  // Prints a usage error of the command the way every command words it and
  // answers the exit status for it, 2.
  static int usage_error(const std::string& command, const std::string& message);

 private:
  void parse(int argc, char** argv);
  const CommandOption* find(const std::string& spelling) const;
  const CommandOption& declared(const std::string& name, bool valued) const;
  void fail(const std::string& message);

  Syntax syntax_;
  std::vector<std::string> positional_;
  std::set<std::string> flags_;
  std::map<std::string, std::string> values_;  // by the spelling given
  std::string error_;
  bool help_ = false;
};
