// The devices that the host can update: one line each, USB devices first, then FTDI adapters.
#pragma once

#include "log/logger.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"

namespace tavo {

// Prints the description of every device found; nothing at all when there is none. Has a link and
// transports of its own and opens no device for use, so it may run beside an update. `d2xx` keeps a
// list of adapters and must not be that of an update.
void ListDevices(Platform& platform, Logger& log, LibUsb& usb, D2xx& d2xx);

}  // namespace tavo
