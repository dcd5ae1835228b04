// Which device a command is for, as the user names it.
#pragma once

#include <string>

#include "text/by_system.h"
#include "transport/device_target.h"

namespace tavo::tool {

using Target = DeviceTarget;

// Stable, for scripts: "usb", "ftdi".
const char* KindName(TransportKind kind);

// The options that name this device on a command line, ready to be copied into a shell:
// "--usb 4-2", "--ftdi TAVO0001 --baud 115200 --echo".
std::string TargetOptions(const Target& target);

// The text as one word of a shell command, in one line and in UTF-8 whatever it holds: as it stands
// where that is safe, else in quotes.
//
// On Windows the double quotes serve cmd and PowerShell alike. But a text with $, ` or a quotation mark
// is quoted for PowerShell, in single quotes; and cmd replaces a variable between two percent signs.
std::string ShellWord(const std::string& text, System system = kSystem);

}  // namespace tavo::tool
