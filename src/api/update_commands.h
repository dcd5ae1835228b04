// The two update exports without their C shell: the dialogue, the choice of transport and device,
// and the update itself. Everything they work on is handed in.
#pragma once

#include <cstdint>
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

struct FtdiTarget {
  std::string serialNumber;  // empty: the first adapter found
  std::uint32_t baudRate;    // bits per second
  bool echo;                 // the adapter hears what it sends
};

// Both block until the update has ended and return its result. The transport is closed again on
// every way out and stays in the holder.

// An empty `port` takes the first device found.
bool UpdateUsbDevice(UpdateContext context, std::string port, const std::string& updateFile,
                     const UpdateFlags& flags);

bool UpdateFtdiDevice(UpdateContext context, FtdiTarget target, const std::string& updateFile,
                      const UpdateFlags& flags);

}  // namespace tavo
