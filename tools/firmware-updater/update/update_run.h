// One command that updates a device, from the checked update file to the closing state. `update` and
// `recover` differ only in which plans they run.
#pragma once

#include <functional>
#include <string>

#include "device/inquiry.h"
#include "device/target_choice.h"
#include "engine/firmware_updater.h"
#include "file/package_report.h"
#include "text/machine.h"
#include "text/options.h"

namespace tavo::tool {

// What both commands are told.
struct UpdateOptions {
  std::string file{};
  TargetOptionsValues target{};
  UpdateFlags flags{};
  bool json = false;
  bool verbose = false;
  std::string log{};
  std::string record{};
  bool recordFirmware = false;
};

void AddUpdateOptions(CommandOptions& command, UpdateOptions& to);

// One run of the engine with these flags; true when it succeeded.
using RunPlan = std::function<bool(const UpdateFlags& flags)>;

// The plans of a command: asks the device what there is to ask, calls `run` for each plan, and returns
// whether the command has succeeded.
using Procedure =
    std::function<bool(const PackageReport& report, Inquiry& inquiry, const RunPlan& run)>;

// Whether the device that the file is for is reached only through a tunnel. As the engine does, this
// goes by the first image.
bool NeedsTunnel(const PackageReport& report);

ExitCode RunUpdate(const Machine& machine, const char* command, const UpdateOptions& options,
                   const Procedure& procedure);

}  // namespace tavo::tool
