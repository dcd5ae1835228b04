// The last thing that every command says that may have changed a device: what state it is in, and
// which command gets it going. It rests on the engine's evidence alone; what that leaves open is
// called unknown.
#pragma once

#include <string>

#include "device/target.h"
#include "engine/firmware_updater.h"
#include "text/exit_code.h"

namespace tavo::tool {

enum class Ending { Succeeded, Failed, Stopped };

// What the command was asked to do, as far as the next one has to be asked the same.
struct Task {
  std::string file{};
  Target target{};
  UpdateFlags flags{};
};

struct ClosingState {
  std::string device;    // stable name of the condition, for scripts: "updated-and-verified"
  std::string tunnel;    // the same: "closed", "left-open", "not-asked", "unknown"
  std::string sentence;  // what a person reads: "The device runs its old firmware."
  std::string command;   // what to run next; empty when there is nothing to do
  ExitCode exit = ExitCode::FailedUnknown;

  // Sentence and command in one line.
  std::string Line() const;
};

// `failure` is that of the update; a firmware that does not fit the device is not recommended again.
ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, ErrorCode failure,
                       const Task& task);

// The command that gets a device going of which nothing is known.
std::string RecoverCommand(const Task& task);

// A run that has come to know no better than `later`, after one that left the device as `earlier`: by
// itself the later one knows only what it has done.
DeviceCondition Following(DeviceCondition earlier, DeviceCondition later);

// Whether the device is known to run an application, old or new.
bool RunsApplication(DeviceCondition condition);

// Stable, for scripts: "updated-and-verified".
std::string_view NameOf(DeviceCondition condition);

std::string_view SentenceOf(DeviceCondition condition);

}  // namespace tavo::tool
