// The place that answers come from: a device, or the one behind its master module. For commands that ask
// single questions.
#pragma once

#include <optional>
#include <string>

#include "device/inquiry.h"
#include "device/target.h"
#include "package/hardware_identity.h"
#include "text/options.h"

namespace tavo::tool {

struct Place {
  Target target{};
  std::optional<TunnelRoute> behind{};  // a master, through this tunnel

  // As a command line selects it: "--usb 4-2 --through 4.1".
  std::string Options() const;
};

Option AddThroughOption(CommandOptions& command, std::string& to);

// The tunnel that the update file needs or, without a file, the one that --through names. None: the
// device is connected directly. Throws a Refusal when no device can accept the file.
std::optional<TunnelRoute> RouteBehind(const std::string& file, const std::string& through);

// Throws a Refusal, with the right command in it, when --echo is not as the line is.
void CheckEcho(Inquiry& inquiry, const Place& place, const std::string& command);

}  // namespace tavo::tool
