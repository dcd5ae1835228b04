// firmware-updater recover: gets a device going that was left in its bootloader.
#include <algorithm>
#include <memory>

#include "commands/commands.h"
#include "update/update_run.h"

namespace tavo::tool {
namespace {

constexpr const char* kExamples =
    "\nExamples:\n"
    "  firmware-updater recover firmware.hex\n"
    "  firmware-updater recover firmware.zip --ftdi TAVO0001";

constexpr std::uint8_t kLabellingAdbType = 5;

bool SetsLabel(const PackageReport& report) {
  return std::ranges::count(report.images, kLabellingAdbType, &ImageReport::adbType) > 0;
}

// A device in its bootloader cannot tell its ids, and needs nothing but the bootloader's part of the
// plan. With its application back it may still be without its label, which the full plan sets.
bool RecoverConnected(const UpdateFlags& flags, const PackageReport& report, Inquiry& inquiry,
                      const RunPlan& run) {
  if (!inquiry.Ask(kCheckVersion)) return run(flags);
  UpdateFlags reduced = flags;
  reduced.bootloaderOnly = true;
  reduced.checkHardware = flags.checkIdentity;
  return run(reduced) && (!SetsLabel(report) || run(flags));
}

// The bootloader's part alone opens no tunnel. Some masters tell the id of a device that cannot.
bool RecoverBehindTunnel(const UpdateFlags& flags, const PackageReport& report, Inquiry& inquiry,
                         const RunPlan& run) {
  if (inquiry.Ask(kRequestDeviceId) || inquiry.Ask(kRequestDeviceIdAdmin)) return run(flags);
  UpdateFlags withoutIds = flags;
  withoutIds.checkIdentity = false;
  withoutIds.checkHardware = flags.checkIdentity;
  return run(withoutIds) && (!SetsLabel(report) || run(flags));
}

}  // namespace

void AddRecoverCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "recover", "Recover a device left in its bootloader");
  command.Footer(kExamples);
  const auto options = std::make_shared<UpdateOptions>();
  AddUpdateOptions(command, *options);
  command.OnRun(exit, [&machine, options] {
    return RunUpdate(machine, "recover", *options,
                     [&flags = options->flags](const PackageReport& report, Inquiry& inquiry,
                                               const RunPlan& run) {
                       const auto recover =
                           NeedsTunnel(report) ? RecoverBehindTunnel : RecoverConnected;
                       return recover(flags, report, inquiry, run);
                     });
  });
}

}  // namespace tavo::tool
