#include "transport/transport_factory.h"

#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo {

std::unique_ptr<ICommInterface> MakeTransport(TransportKind kind, const TransportSeams& seams) {
  switch (kind) {
    case TransportKind::Usb:
      return std::make_unique<CCommWinUSB>(seams.link, seams.platform, seams.log, seams.usb);
    case TransportKind::Ftdi:
      return std::make_unique<CCommFTDI>(seams.link, seams.platform, seams.log, seams.d2xx);
    case TransportKind::None: break;
  }
  return nullptr;
}

}  // namespace tavo
