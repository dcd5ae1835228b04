// The commands of the tool. Each lives in a file of its own, declares its options and, when the user
// has chosen it, runs and leaves the exit code.
#pragma once

#include "text/exit_code.h"
#include "text/machine.h"

namespace CLI {
class App;
}

namespace tavo::tool {

// In the order of the help text. The references must outlive the parsing.
void AddListCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddDoctorCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddInfoCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddCheckDeviceCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddUpdateCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddStationCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddRecoverCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddHistoryCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddInspectCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddPackCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddReplayCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddSimulateCommand(CLI::App& app, const Machine& machine, ExitCode& exit);
void AddServeCommand(CLI::App& app, const Machine& machine, ExitCode& exit);

}  // namespace tavo::tool
