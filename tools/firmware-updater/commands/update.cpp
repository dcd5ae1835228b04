// firmware-updater update: the whole update of one device.
#include <memory>

#include "commands/commands.h"
#include "update/update_run.h"
#include "update/watch.h"

namespace tavo::tool {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  firmware-updater update firmware.zip\n"
    "  firmware-updater update firmware.hex --usb 4-2 --dry-run\n"
    "  firmware-updater update firmware.hex --ftdi TAVO0001 --baud 115200 --echo\n"
    "  firmware-updater update build/firmware.hex --quick --watch\n"
    "  firmware-updater update firmware.zip --usb 4-2 --json >>record.ndjson";

}  // namespace

void AddUpdateCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "update", "Update the firmware of one device");
  command.Footer(kExamples);
  const auto options = std::make_shared<UpdateOptions>();
  AddUpdateOptions(command, *options);
  command.Flag("--bootloader-only", options->flags.bootloaderOnly,
               "Ask nothing that needs a running application, and open no tunnel");
  command.Flag("--dry-run", options->flags.dryRun,
               "Run every check, then return to the application; nothing is written");
  command
      .Flag(
          "--quick", options->quick,
          "Go straight to the bootloader: checks the hardware id, not the device id; for firmware "
          "that needs no tunnel and sets no label")
      .Excludes("--bootloader-only")
      .Excludes("--skip-identity-check");
  command.Flag("--watch", options->watch,
               "Update again whenever the file has changed, until Ctrl-C; one line each");
  command.OnRun(exit, [&machine, options] {
    return options->watch ? UpdateWatching(machine, *options)
                          : RunUpdate(machine, Purpose::Update, *options);
  });
}

}  // namespace tavo::tool
