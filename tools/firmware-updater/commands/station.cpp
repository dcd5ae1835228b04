// firmware-updater station: updates the devices of a production line, one after the other on each port.
#include <memory>

#include "commands/commands.h"
#include "update/station.h"

namespace tavo::tool {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  firmware-updater station firmware.zip --journal journal.ndjson --tag order=4711\n"
    "  firmware-updater station firmware.zip --usb 4-1 --usb 4-2 --count 500\n"
    "Without --usb and --ftdi it serves every USB port that a device is plugged into.";

}  // namespace

void AddStationCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "station",
                         "Update each device that is plugged in, and show PASS or FAIL");
  command.Footer(kExamples);
  const auto options = std::make_shared<UpdateOptions>();
  const auto targets = std::make_shared<SeveralTargets>();
  const auto count = std::make_shared<std::uint32_t>(0);
  AddUpdateOptions(command, *options, targets.get());
  command.Value("--count", *count, "End when this many devices have passed; else Ctrl-C ends it")
      .Shown("N");
  command.OnRun(exit, [&machine, options, targets, count, command] {
    return RunStation(
        machine, *options, [&](const auto& except) { return command.Given(except); }, *targets,
        *count);
  });
}

}  // namespace tavo::tool
