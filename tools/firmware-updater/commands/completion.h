// Completion of the tool's commands, options and values in shells, as the text of a script.
#pragma once

#include <string>

#include "commands/outline.h"

namespace tavo::tool {

// To be sourced; needs bash 4 and nothing else.
std::string BashCompletion(const CommandOutline& tool);

// To be put into a folder of zsh's `fpath`, under the name "_firmware-updater".
std::string ZshCompletion(const CommandOutline& tool);

}  // namespace tavo::tool
