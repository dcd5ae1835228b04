// The machine as commands see it, and the one way to complain.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>

#include "text/refusal.h"

namespace tavo {
class D2xx;
class LibUsb;
class Platform;
}  // namespace tavo

namespace tavo::tool {

// A test puts doubles in place of the first three.
struct Machine {
  Platform& platform;
  LibUsb& usb;
  D2xx& adapters;
  std::ostream& out;                    // results; JSON alone where that is asked for
  std::ostream& err;                    // errors and hints
  bool terminal = false;                // `out` is a terminal: lines may be redrawn in place
  bool colour = false;                  // and the user wants colours
  int (*width)() = [] { return 80; };   // of the terminal at this moment, in characters
  int (*height)() = [] { return 24; };  // the same
  std::filesystem::path root = "/";     // of the system's own files, such as /sys
};

// The text in lines that fit the terminal; elsewhere in one line.
std::string InLines(const Machine& machine, const std::string& text);

// Writes one line "firmware-updater: TEXT" and, unless empty, one line "hint: HINT" to `err`.
void Complain(const Machine& machine, std::string_view text, std::string_view hint);

// The same for a refusal; returns its exit code.
ExitCode Complain(const Machine& machine, const Refusal& refusal);

}  // namespace tavo::tool
