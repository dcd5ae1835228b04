#include "text/machine.h"

#include <ostream>

namespace tavo::tool {

void Complain(const Machine& machine, std::string_view text, std::string_view hint) {
  machine.err << "firmware-updater: " << text << '\n';
  if (!hint.empty()) machine.err << "hint: " << hint << '\n';
  machine.err << std::flush;
}

}  // namespace tavo::tool
