#include "cli/CommandArgs.h"
#include "util/Text.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>

CommandArgs::CommandArgs(int argc, char** argv, const Grammar& grammar) {
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
    std::string inline_value;
    bool has_inline_value = false;
    if (const auto eq = arg.find('='); eq != std::string::npos) {
      inline_value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      has_inline_value = true;
    }
    if (grammar.flags.count(arg) != 0 && !has_inline_value) {
      flags_.insert(arg);
    } else if (grammar.valued.count(arg) != 0) {
      if (has_inline_value) {
        values_[arg] = inline_value;
      } else if (i + 1 < argc) {
        values_[arg] = argv[++i];
      } else {
        fail("option " + arg + " needs a value");
      }
    } else {
      fail("unknown option " + arg);
    }
  }
  if (positional_.size() < grammar.min_positional) {
    fail("missing argument");
  } else if (positional_.size() > grammar.max_positional) {
    fail("unexpected argument '" + positional_[grammar.max_positional] + "'");
  }
}

void CommandArgs::fail(const std::string& message) {
  if (error_.empty()) {
    error_ = message;
  }
}

std::optional<std::string> CommandArgs::value(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) {
    return std::nullopt;
  }
  return found->second;
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

std::optional<int> CommandArgs::help_or_usage_error(const char* command, const char* help_text) const {
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
