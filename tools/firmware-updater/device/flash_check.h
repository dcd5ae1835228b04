// Whether the flash of a device passes its bootloader's own check. A running application is left for its
// bootloader, which compares two checksums, and is started again; nothing is written. What the check proves is
// that the flash is whole, not which firmware it holds.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "device/inquiry.h"

namespace tavo::tool {

enum class FlashVerdict {
  Passed,
  Failed,
  NotSupported,  // by bootloaders before version 3
  NoAnswer,      // to the question
  NoBootloader,  // the application did not start it
  NotAsked,      // neither application nor bootloader responds, or the user wanted an end
};

struct FlashCheck {
  FlashVerdict verdict = FlashVerdict::NotAsked;
  std::optional<std::uint32_t> calculated{};
  std::optional<std::uint32_t> expected{};
  bool lost = false;  // the device is not in the state that it was found in
};

// `report` is that of AskWho. It gets the facts that only a bootloader knows, and the state in which the
// device is left: in its bootloader only if it was found there, or if it did not start its application again.
// `stopped`: only the application is still started.
FlashCheck CheckFlash(Inquiry& inquiry, Platform& platform, DeviceReport& report,
                      const std::function<bool()>& stopped);

}  // namespace tavo::tool
