// The commands of the tool. Each lives in a file of its own, registers its options with the parser
// and, when the parser has chosen it, runs and leaves the exit code.
//
//   CLI::App app;
//   ExitCode exit = ExitCode::Usage;
//   AddListCommand(app, machine, exit);
//   app.parse(argc, argv);
#pragma once

#include <CLI/CLI.hpp>
#include <iosfwd>

#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "text/exit_code.h"

namespace tavo::tool {

// What the commands stand on; a test puts doubles in its place.
struct Machine {
  Platform& platform;
  LibUsb& usb;
  D2xx& adapters;
  std::ostream& out;                   // results; JSON alone where that is asked for
  std::ostream& err;                   // errors and hints
  bool terminal = false;               // `out` is a terminal: lines may be redrawn in place
  bool colour = false;                 // and the user wants colours
  int (*width)() = [] { return 80; };  // of the terminal at this moment, in characters
};

// In the order of the help text. The references must outlive the parsing.
void AddListCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddInfoCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddUpdateCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddRecoverCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddInspectCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddPackCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddReplayCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddSimulateCommand(CLI::App& app, const Machine& machine, ExitCode& exit);

// Writes one line "firmware-updater: TEXT" and, unless empty, one line "hint: HINT" to `err`.
void Complain(const Machine& machine, std::string_view text, std::string_view hint);

}  // namespace tavo::tool
