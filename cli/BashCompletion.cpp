#include "cli/BashCompletion.h"

#include <set>
#include <vector>

namespace {

// What the value of an option, or a positional argument, is, by the name
// its --help gives it.
enum class Kind { file, folder, other };

Kind kind_of(const std::string& value_name) {
  static const std::set<std::string> files{"DB", "FILE", "INI"};
  if (files.count(value_name) != 0) return Kind::file;
  return value_name == "DIR" ? Kind::folder : Kind::other;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// The spellings of every option, of the valued ones, and of those whose
// value is a file or a folder.
struct OptionWords {
  std::vector<std::string> all, valued, files, folders;

  explicit OptionWords(const std::vector<CommandOption>& options) {
    for (const CommandOption& option : options) {
      for (const std::string& spelling : {option.name, option.alias}) {
        if (spelling.empty()) continue;
        all.push_back(spelling);
        if (option.value_name.empty()) continue;
        valued.push_back(spelling);
        const Kind kind = kind_of(option.value_name);
        if (kind == Kind::file) files.push_back(spelling);
        if (kind == Kind::folder) folders.push_back(spelling);
      }
    }
  }
};

// One arm of the script's case on the command: the words the function
// completes this command with.
std::string case_arm(const Command& command) {
  const OptionWords words(command.syntax.options);
  std::vector<std::string> arguments;
  for (const std::string& name : command.syntax.arguments) {
    arguments.push_back(kind_of(name) == Kind::file ? "file" : "other");
  }
  return "    " + std::string(command.name) + ")\n      options=\"" + joined(words.all) + "\" valued=\"" +
         joined(words.valued) + "\"\n      files=\"" + joined(words.files) + "\" folders=\"" + joined(words.folders) +
         "\" arguments=\"" + joined(arguments) + "\" ;;\n";
}

constexpr const char* kHead = R"(# bash completion for tsanomalyctl(1): its commands, each command's options,
# and file or folder names where an option or argument takes one. Written at
# build time from the options each command declares; do not edit.

# Completes the current word with the file (or, with -d, folder) names it
# starts.
_tsanomalyctl_paths() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "${1:--f}" -- "$cur")
}

_tsanomalyctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} at=$COMP_CWORD
  COMPREPLY=()
  # bash splits "--option=value" at the '='.
  if [[ $cur == = ]]; then
    cur="" prev=${COMP_WORDS[COMP_CWORD-1]}
  elif [[ $prev == = ]]; then
    at=$((COMP_CWORD - 2)) prev=${COMP_WORDS[COMP_CWORD-2]}
  fi
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W ")";

constexpr const char* kMiddle = R"( --help --version" -- "$cur")
    return
  fi
  local options="" valued="" files="" folders="" arguments=""
  case ${COMP_WORDS[1]} in
)";

constexpr const char* kTail = R"(    *) return ;;
  esac
  if [[ " $files " == *" $prev "* ]]; then _tsanomalyctl_paths; return; fi
  if [[ " $folders " == *" $prev "* ]]; then _tsanomalyctl_paths -d; return; fi
  # Any other value is the operator's to type.
  if [[ " $valued " == *" $prev "* ]]; then return; fi
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$cur")
    return
  fi
  # Which positional argument this is: the words before it, less options
  # and their values.
  local i=2 taken=0
  while ((i < at)); do
    local word=${COMP_WORDS[i]}
    if [[ $word == -* ]]; then
      [[ " $valued " == *" $word "* && ${COMP_WORDS[i+1]} != = ]] && ((i++))
      [[ ${COMP_WORDS[i+1]} == = ]] && ((i += 2))
    else
      ((taken++))
    fi
    ((i++))
  done
  local kinds=($arguments)
  if [[ ${kinds[taken]} == file ]]; then _tsanomalyctl_paths; fi
}
complete -F _tsanomalyctl tsanomalyctl
)";

}  // namespace

std::string bash_completion_script(std::span<const Command> commands) {
  std::vector<std::string> names;
  for (const Command& command : commands) names.push_back(command.name);
  std::string script = kHead + joined(names) + kMiddle;
  for (const Command& command : commands) script += case_arm(command);
  return script + kTail;
}
