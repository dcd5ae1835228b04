// The last thing that every command says that may have changed a device: what state it is in, and
// which command gets it going. It rests on the engine's evidence alone; what that leaves open is
// called unknown.
#pragma once

#include <string>

#include "engine/evidence.h"
#include "exit_code.h"
#include "target.h"

namespace tavo::tool {

enum class Ending { Succeeded, Failed, Stopped };

struct ClosingState {
  std::string device;    // stable name of the condition, for scripts: "updated-and-verified"
  std::string tunnel;    // the same: "closed", "left-open", "not-asked", "unknown"
  std::string sentence;  // what a person reads: "The device runs its old firmware."
  std::string command;   // what to run next; empty when there is nothing to do
  ExitCode exit = ExitCode::FailedUnknown;
};

ClosingState CloseWith(const DeviceEvidence& evidence, Ending ending, const std::string& file,
                       const Target& target);

// Whether the device is known to run an application, old or new.
bool RunsApplication(DeviceCondition condition);

// What a stop at this moment would leave, for the user who has asked for it.
std::string_view SentenceOf(DeviceCondition condition);

}  // namespace tavo::tool
