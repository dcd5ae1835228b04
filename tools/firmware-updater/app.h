// The tool but for its main function: the parser with all commands, and one run of it.
#pragma once

#include "commands/commands.h"

namespace tavo::tool {

// Runs the command that the arguments name and returns the exit code of the process: one of
// ExitCode, or what a command of the user's that was run has returned. Never throws.
int RunTool(int argc, const char* const* argv, const Machine& machine);

// The commands in the order of the help text, with the general options and the footer. What is
// handed in must outlive the parsing.
void AddEverything(CLI::App& app, const Machine& machine, ExitCode& exit);

}  // namespace tavo::tool
