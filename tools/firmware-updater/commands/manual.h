// The manual page of the tool, section 1, in the man macros of roff.
#pragma once

#include <string>

#include "commands/outline.h"

namespace tavo::tool {

// `version` stands in the page's foot line.
std::string ManualPage(const CommandOutline& tool, const std::string& version);

}  // namespace tavo::tool
