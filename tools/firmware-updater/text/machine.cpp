#include "text/machine.h"

#include <ostream>

#include "log/displayable.h"

namespace tavo::tool {

void Complain(const Machine& machine, std::string_view text, std::string_view hint) {
  machine.err << "firmware-updater: " << tavo::Displayable(text) << '\n';
  if (!hint.empty()) machine.err << "hint: " << tavo::Displayable(hint) << '\n';
  machine.err << std::flush;
}

ExitCode Complain(const Machine& machine, const Refusal& refusal) {
  const std::string next = refusal.command.empty() ? "" : "; run: " + refusal.command;
  Complain(machine, refusal.text, refusal.hint + next);
  return refusal.exit;
}

}  // namespace tavo::tool
