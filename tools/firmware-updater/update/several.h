// The update of several devices at once.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/target.h"
#include "system/process.h"
#include "text/machine.h"
#include "update/fleet.h"
#include "update/update_run.h"

namespace tavo::tool {

// The user's options, but those of these names, as words for a process.
using GivenOptions = std::function<Process::Words(const std::vector<std::string_view>& except)>;

// Updates all at the same time. Returns the worst of their exit codes.
ExitCode RunUpdates(const Machine& machine, const UpdateOptions& options, const GivenOptions& given,
                    const std::vector<Target>& targets);

// The command of a process for one device. Each device gets files of its own for log and record.
Process::Words ChildCommand(const Task& task, const UpdateOptions& options,
                            const GivenOptions& given);

// The result for a device whose process was killed, could not be started (`exit`: its exit code) or, after
// a stop, was not started at all. `begun`: it has reported a phase. One that was started goes into the
// journal, if there is one.
Json ResultWithout(const Task& task, const UpdateOptions& options, std::optional<int> exit,
                   bool begun, bool stopping);

}  // namespace tavo::tool
