// One command that updates a device, from the checked update file to the closing state. `update` and
// `recover` differ only in the runs of the engine that they take.
#pragma once

#include <string>
#include <vector>

#include "device/target_choice.h"
#include "engine/firmware_updater.h"
#include "text/machine.h"
#include "text/options.h"
#include "update/record.h"

namespace tavo::tool {

struct PackageReport;
class UpdateView;

struct UpdateOptions {
  std::string file{};
  TargetOptionsValues target{};
  std::string wait{};        // seconds for the device to be connected; empty: it is now
  bool shortLatency = true;  // of an adapter
  UpdateFlags flags{};
  bool quick = false;
  bool watch = false;
  bool json = false;
  bool verbose = false;
  bool trace = false;
  std::string log{};
  std::string record{};
  bool recordFirmware = false;
  std::string journal{};
  std::string station{};            // empty: the name of the host
  std::vector<std::string> tags{};  // "NAME=VALUE"
};

// The options of every command that updates. With `several`, any number of devices can be selected, and
// `to.target` is left alone.
void AddUpdateOptions(CommandOptions& command, UpdateOptions& to,
                      SeveralTargets* several = nullptr);

// Those of a command that a person or a program starts for each update.
void AddViewOptions(CommandOptions& command, UpdateOptions& to);

// Empty stays empty.
std::string AbsolutePath(const std::string& path);

// That of a command that begins now.
Record NewRecord(Purpose purpose, const UpdateOptions& options);

ExitCode RunUpdate(const Machine& machine, Purpose purpose, const UpdateOptions& options);
// The same with an update file that was read already.
ExitCode RunUpdate(const Machine& machine, Purpose purpose, const UpdateOptions& options,
                   const PackageReport& report, UpdateView& view);

}  // namespace tavo::tool
