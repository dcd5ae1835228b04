#include "text/machine.h"

#include <algorithm>
#include <ostream>

#include "log/displayable.h"
#include "text/text_format.h"

namespace tavo::tool {

std::string InLines(const Machine& machine, const std::string& text) {
  if (!machine.terminal) return text;
  return Wrapped(text, static_cast<std::size_t>(std::max(machine.width(), 1)));
}

void Complain(const Machine& machine, std::string_view text, std::string_view hint) {
  const auto line = [&](const char* head, std::string_view rest) {
    machine.err << InLines(machine, head + tavo::Displayable(rest)) << '\n';
  };
  line("firmware-updater: ", text);
  if (!hint.empty()) line("hint: ", hint);
  machine.err << std::flush;
}

ExitCode Complain(const Machine& machine, const Refusal& refusal) {
  const std::string next = refusal.command.empty() ? "" : "; run: " + refusal.command;
  Complain(machine, refusal.text, refusal.hint + next);
  return refusal.exit;
}

}  // namespace tavo::tool
