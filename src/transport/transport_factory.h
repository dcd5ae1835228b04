// Makes the library's transports on the seams they are given.
#pragma once

#include <memory>

#include "log/logger.h"
#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "transport/device_target.h"
#include "transport/i_comm_interface.h"
#include "transport/observed_transport.h"
#include "transport/tavo_link.h"

namespace tavo {

// The objects that a transport uses; all must outlive it.
struct TransportSeams {
  TavoLink& link;
  Platform& platform;
  Logger& log;
  LibUsb& usb;
  D2xx& d2xx;
};

// Null for a kind that does not exist. An observer, which must outlive the transport, learns of its
// traffic.
std::unique_ptr<ICommInterface> MakeTransport(TransportKind kind, const TransportSeams& seams,
                                              TransportObserver* observer = nullptr);

}  // namespace tavo
