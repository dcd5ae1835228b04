// How the tool ends. Scripts and production lines decide by these numbers; they never change meaning.
#pragma once

#include <array>
#include <string_view>

namespace tavo::tool {

enum class ExitCode : int {
  Done = 0,
  FailedRuns = 1,          // failed; the device runs an application
  Usage = 2,               // the command line is wrong
  NoDevice = 3,            // no such device, or it cannot be used
  BadFile = 4,             // no device can accept the update file
  FailedInBootloader = 5,  // failed; the device is in its bootloader
  Stopped = 6,             // stopped by the user
  FailedUnknown = 7,       // failed; the state of the device is unknown
  EvidenceLost = 8,        // done; the log, the record, the journal entry or the output was lost
};

struct ExitDescription {
  ExitCode code;
  std::string_view meaning;
};

// In the order of the numbers; the manual prints it.
inline constexpr std::array<ExitDescription, 9> kExitTable{{
    {ExitCode::Done, "done"},
    {ExitCode::FailedRuns, "failed, and the device runs an application"},
    {ExitCode::Usage, "the command line is wrong"},
    {ExitCode::NoDevice, "no such device, or it cannot be used"},
    {ExitCode::BadFile, "the update file is bad: nothing was opened"},
    {ExitCode::FailedInBootloader, "failed, and the device is in its bootloader"},
    {ExitCode::Stopped, "stopped by the user"},
    {ExitCode::FailedUnknown, "failed, and the state of the device is unknown"},
    {ExitCode::EvidenceLost,
     "done, but the log, the record, the journal entry or the output was lost"},
}};

}  // namespace tavo::tool
