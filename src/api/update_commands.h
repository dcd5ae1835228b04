// The two update exports without their C shell: the dialogue, the choice of transport and device,
// and the update itself.
#pragma once

#include <string>

#include "engine/firmware_updater.h"
#include "engine/transport_holder.h"
#include "platform/platform.h"

namespace tavo {

struct UpdateContext {
  FirmwareUpdater& engine;
  TransportHolder& holder;
  Platform& platform;
};

// Blocks until the update has ended and returns its result. An empty address takes the first device
// found. The transport is closed again on every way out and stays in the holder.
bool UpdateDevice(const UpdateContext& context, DeviceTarget target, const std::string& updateFile,
                  const UpdateFlags& flags);

}  // namespace tavo
