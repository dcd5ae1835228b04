// firmware-updater recover: brings a device that was left in its bootloader back to an application.
#include <memory>

#include "commands/commands.h"
#include "update/update_run.h"

namespace tavo::tool {
namespace {

constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater recover firmware.hex\n"
    "  firmware-updater recover firmware.zip --ftdi TAVO0001";

}  // namespace

void AddRecoverCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "recover", "Recover a device left in its bootloader");
  command.Footer(kExamples);
  const auto options = std::make_shared<UpdateOptions>();
  AddUpdateOptions(command, *options);
  AddViewOptions(command, *options);
  command.OnRun(exit,
                [&machine, options] { return RunUpdate(machine, Purpose::Recover, *options); });
}

}  // namespace tavo::tool
