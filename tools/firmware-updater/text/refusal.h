// The reason why a command ends before its work begins. Thrown where the reason is found; whoever
// runs the command reports it and ends with `exit`.
#pragma once

#include <string>

#include "text/exit_code.h"

namespace tavo::tool {

struct Refusal {
  ExitCode exit;
  std::string name;       // stable, for scripts
  std::string text;       // one sentence or two
  std::string hint{};     // what to do about it
  std::string command{};  // what to run next; empty when something else has to be done first
};

}  // namespace tavo::tool
