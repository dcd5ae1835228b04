// Everything that a device answers about itself, for commands that only ask: the device is opened, asked and
// closed, and left as it was.
#pragma once

#include <optional>
#include <string>

#include "device/flash_check.h"
#include "device/inquiry.h"
#include "device/place.h"
#include "device/target_choice.h"
#include "text/machine.h"
#include "transport/refused_bytes.h"

namespace tavo::tool {

struct DeviceAnswers {
  Place place{};
  DeviceReport report{};
  RefusedBytes refused{};
  std::optional<FlashCheck> flash{};  // none: not wanted
  bool stopped = false;               // by Ctrl-C, which only a check of the flash handles
};

struct Questions {
  std::string command{};               // that asks, for a hint: "info"
  std::optional<TunnelRoute> route{};  // to look behind a master
  bool flash = false;
  bool trace = false;
};

// Throws a Refusal when no device is selected, it cannot be opened, or --echo is not as the line is.
DeviceAnswers AskDevice(const Machine& machine, const TargetOptionsValues& named,
                        const Questions& questions);

}  // namespace tavo::tool
