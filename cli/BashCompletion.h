// BashCompletion: the bash completion script of tsanomalyctl, written from
// the command table and each command's declared arguments, so the script
// offers exactly the commands and options the tool takes. It completes the
// command, a command's options, and file or folder names where an option's
// value or a positional argument is one (DB, FILE, INI; DIR).
#pragma once

#include <span>
#include <string>

#include "cli/CommandTable.h"

std::string bash_completion_script(std::span<const Command> commands);
