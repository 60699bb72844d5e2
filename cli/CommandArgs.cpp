#include "cli/CommandArgs.h"
#include "util/Text.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

CommandArgs::Syntax syntax_of(const CommandArgs::Grammar& grammar) {
  CommandArgs::Syntax syntax{{}, grammar.min_positional, grammar.max_positional};
  for (const std::string& name : grammar.flags) syntax.options.push_back({.name = name});
  for (const std::string& name : grammar.valued) syntax.options.push_back({.name = name, .value_name = "VALUE"});
  return syntax;
}

}  // namespace

CommandArgs::CommandArgs(int argc, char** argv, Syntax syntax) : syntax_(std::move(syntax)) { parse(argc, argv); }

CommandArgs::CommandArgs(int argc, char** argv, const Grammar& grammar) : syntax_(syntax_of(grammar)) {
  parse(argc, argv);
}

void CommandArgs::parse(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help_ = true;
      continue;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      positional_.push_back(arg);
      continue;
    }
    std::optional<std::string> inline_value;
    if (const auto eq = arg.find('='); eq != std::string::npos) {
      inline_value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
    }
    const CommandOption* option = find(arg);
    if (option != nullptr && option->value_name.empty() && !inline_value) {
      flags_.insert(option->name);
    } else if (option != nullptr && !option->value_name.empty()) {
      if (inline_value) {
        values_[arg] = *inline_value;
      } else if (i + 1 < argc) {
        values_[arg] = argv[++i];
      } else {
        fail("option " + arg + " needs a value");
      }
    } else {
      fail("unknown option " + arg);
    }
  }
  if (positional_.size() < syntax_.min_positional) {
    fail("missing argument");
  } else if (positional_.size() > syntax_.max_positional) {
    fail("unexpected argument '" + positional_[syntax_.max_positional] + "'");
  }
}

const CommandOption* CommandArgs::find(const std::string& spelling) const {
  const auto found = std::find_if(syntax_.options.begin(), syntax_.options.end(), [&](const CommandOption& o) {
    return o.name == spelling || (!o.alias.empty() && o.alias == spelling);
  });
  return found == syntax_.options.end() ? nullptr : &*found;
}

const CommandOption& CommandArgs::declared(const std::string& name, bool valued) const {
  const CommandOption* option = find(name);
  if (option == nullptr || option->value_name.empty() == valued) {
    throw std::logic_error("the command reads " + std::string(valued ? "option " : "flag ") + name +
                           ", which it does not declare as one");
  }
  return *option;
}

void CommandArgs::fail(const std::string& message) {
  if (error_.empty()) {
    error_ = message;
  }
}

bool CommandArgs::flag(const std::string& name) const { return flags_.count(declared(name, false).name) != 0; }

std::optional<std::string> CommandArgs::value(const std::string& name) const {
  const CommandOption& option = declared(name, true);
  for (const std::string& spelling : {option.name, option.alias}) {
    if (const auto found = values_.find(spelling); found != values_.end()) return found->second;
  }
  return std::nullopt;
}

long long CommandArgs::integer(const std::string& name, long long fallback) {
  const CommandOption& option = declared(name, true);
  if (!option.whole) throw std::logic_error("the command reads " + name + " as a whole number, undeclared");
  return integer(name, fallback, option.whole->min, option.whole->max);
}

long long CommandArgs::integer(const std::string& name, long long fallback, long long min, long long max) {
  const auto text = value(name);
  if (!text) {
    return fallback;
  }
  const std::optional<long long> parsed = text::whole_number(*text, min, max);
  if (!parsed) {
    fail(name + " takes a whole number from " + std::to_string(min) + " to " + std::to_string(max) + ", not '" +
         *text + "'");
    return fallback;
  }
  return *parsed;
}

double CommandArgs::number(const std::string& name, double fallback) {
  const CommandOption& option = declared(name, true);
  if (!option.number) throw std::logic_error("the command reads " + name + " as a number, undeclared");
  return number(name, fallback, option.number->min, option.number->max);
}

double CommandArgs::number(const std::string& name, double fallback, double min, double max) {
  const auto text = value(name);
  if (!text) {
    return fallback;
  }
  char* end = nullptr;
  const double parsed = std::strtod(text->c_str(), &end);
  if (text->empty() || *end != '\0' || !std::isfinite(parsed) || parsed < min || parsed > max) {
    std::ostringstream limits;
    limits << min << " to " << max;
    fail(name + " takes a number from " + limits.str() + ", not '" + *text + "'");
    return fallback;
  }
  return parsed;
}

std::optional<int> CommandArgs::help_or_usage_error(const std::string& command, const std::string& help_text) const {
  if (help_) {
    std::cout << help_text;
    return 0;
  }
  if (!ok()) {
    return usage_error(command, error_);
  }
  return std::nullopt;
}

int CommandArgs::usage_error(const std::string& command, const std::string& message) {
  std::cerr << "tsanomalyctl " << command << ": " << message << "\nRun 'tsanomalyctl " << command
            << " --help' for usage.\n";
  return 2;
}
