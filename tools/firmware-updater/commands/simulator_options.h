// The options that describe a simulated device.
#pragma once

#include <string>

#include "text/options.h"

namespace tavosim {
struct SimulatorArguments;
}

namespace tavo::tool {

void AddSimulatorOptions(CommandOptions& command, tavosim::SimulatorArguments& to);

// The option that names a device family.
Option AddFamilyOption(CommandOptions& command, std::string& to, const char* help);

}  // namespace tavo::tool
