// Which device a command works on: the one that the user names, or the only one there is. An
// adapter is never taken unless it is named: a lone adapter may be anybody's.
//
//   auto values = std::make_shared<TargetOptionsValues>();
//   AddTargetOptions(command, *values);
//   ...
//   const TargetChoice choice = ChooseTarget(machine, *values);
//   if (!choice.target) return choice.exit;  // the user has been told why
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "device/target.h"
#include "text/machine.h"
#include "text/options.h"

namespace tavo::tool {

// What the user wrote; at most one of the two names is not empty.
struct TargetOptionsValues {
  std::string usbPort{};
  std::string ftdiSerial{};
  std::uint32_t baudRate = Target{}.baudRate;
  bool echo = false;
};

// --usb, or --ftdi with --baud and --echo. `to` must outlive the parsing.
void AddTargetOptions(CommandOptions& command, TargetOptionsValues& to);

struct TargetChoice {
  std::optional<Target> target;
  ExitCode exit = ExitCode::Done;  // without a target: how the command is to end,
  std::string text{};              // and why, in one sentence
  std::string hint{};              // what to do; names the devices that are there
};

// Looks at what is connected, opens nothing for good, sends nothing. After a refusal it has
// complained already.
TargetChoice ChooseTarget(const Machine& machine, const TargetOptionsValues& named);

}  // namespace tavo::tool
