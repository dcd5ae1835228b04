// What a command that updates makes sure of before it opens a device: that the file can be written,
// that log and record can be, and which device it is for. In this order; what is wrong ends the
// command by a Refusal.
#pragma once

#include <string>

#include "file/package_report.h"
#include "text/machine.h"
#include "update/record.h"
#include "update/update_run.h"
#include "update/views.h"

namespace tavo::tool {

// Thrown to end a command before its update begins.
struct Refusal {
  Failure failure;
  ClosingState state;
};

// No device was opened.
[[noreturn]] void Refuse(ExitCode exit, Failure failure);

PackageReport CheckedFile(const std::string& file);

// Log and record that the user names are opened for a moment. They must not be the update file, which
// they would destroy.
void CheckOutputs(const Machine& machine, const UpdateOptions& options);

// Empty: none is kept, and the user is told so. A place that nobody has named must not keep an update
// from being done.
std::string LogPath(const Machine& machine, const UpdateOptions& options, UpdateView& view);

// The user has been told when there is none.
Target ChosenTarget(const Machine& machine, const UpdateOptions& options);

}  // namespace tavo::tool
