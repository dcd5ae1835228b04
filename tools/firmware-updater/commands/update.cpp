// firmware-updater update: the whole update of one device, or of several at the same time.
#include <memory>

#include "commands/commands.h"
#include "update/several.h"
#include "update/watch.h"

namespace tavo::tool {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  firmware-updater update firmware.zip\n"
    "  firmware-updater update firmware.hex --usb 4-2 --dry-run\n"
    "  firmware-updater update firmware.hex --ftdi TAVO0001 --baud 115200 --echo\n"
    "  firmware-updater update build/firmware.hex --quick --watch\n"
    "  firmware-updater update firmware.zip --usb 4-2 --json >>record.ndjson\n"
    "  firmware-updater update firmware.zip --usb 4-2 --usb 4-3 --log tool.log\n"
    "With several devices, each gets files of its own: tool-usb-4-2.log.";

ExitCode Update(const Machine& machine, UpdateOptions& options, const SeveralTargets& targets,
                const GivenOptions& given) {
  const bool several = targets.all || targets.Count() > 1;
  if (several && options.watch) {
    throw Refusal{ExitCode::Usage, "several-devices", "--watch is for one device",
                  "select one device, or leave out --watch"};
  }
  if (targets.all && !options.wait.empty()) {
    throw Refusal{ExitCode::Usage, "several-devices",
                  "--all stands for the devices that are connected now, so it waits for none",
                  "select the devices with --usb, or leave out --wait"};
  }
  if (several) {
    return RunUpdates(machine, options, given, ChooseTargets(machine, targets));
  }
  options.target = targets.One();
  return options.watch ? UpdateWatching(machine, options)
                       : RunUpdate(machine, Purpose::Update, options);
}

}  // namespace

void AddUpdateCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "update", "Update the firmware of one device, or of several at once");
  command.Footer(kExamples);
  const auto options = std::make_shared<UpdateOptions>();
  const auto targets = std::make_shared<SeveralTargets>();
  AddUpdateOptions(command, *options, targets.get());
  AddViewOptions(command, *options);
  command.Flag("--all", targets->all, "Update every USB device");
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
  command.OnRun(exit, [&machine, options, targets, command] {
    return Update(machine, *options, *targets,
                  [&](const auto& except) { return command.Given(except); });
  });
}

}  // namespace tavo::tool
