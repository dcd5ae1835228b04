// What the host can update: one line per device, the USB devices first, then the FTDI adapters.
#pragma once

#include "log/logger.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "transport/tavo_link.h"

namespace tavo {

// Prints the description of every device found; nothing at all when there is none. Uses transports
// of its own, which reset `link`: not to be called while an update runs.
void ListDevices(TavoLink& link, Platform& platform, Logger& log, LibUsb& usb, D2xx& d2xx);

}  // namespace tavo
