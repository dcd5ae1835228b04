// Makes the transports that the process knows, on the seams they are given.
#pragma once

#include <memory>

#include "engine/transport_holder.h"
#include "log/logger.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "transport/tavo_link.h"

namespace tavo {

// What a transport stands on; all of it must outlive the transport.
struct TransportSeams {
  TavoLink& link;
  Platform& platform;
  Logger& log;
  LibUsb& usb;
  D2xx& d2xx;
};

// Null for a kind that does not exist.
std::unique_ptr<ICommInterface> MakeTransport(TransportKind kind, const TransportSeams& seams);

}  // namespace tavo
