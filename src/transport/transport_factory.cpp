#include "transport/transport_factory.h"

#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo {
namespace {

template <class Transport, class VendorLibrary>
std::unique_ptr<ICommInterface> Make(const TransportSeams& seams, VendorLibrary& library,
                                     TransportObserver* observer) {
  const auto& [link, platform, log, usb, d2xx] = seams;
  if (observer == nullptr) return std::make_unique<Transport>(link, platform, log, library);
  return std::make_unique<ObservedTransport<Transport>>(*observer, link, platform, log, library);
}

}  // namespace

std::unique_ptr<ICommInterface> MakeTransport(TransportKind kind, const TransportSeams& seams,
                                              TransportObserver* observer) {
  switch (kind) {
    case TransportKind::Usb: return Make<CCommWinUSB>(seams, seams.usb, observer);
    case TransportKind::Ftdi: return Make<CCommFTDI>(seams, seams.d2xx, observer);
    case TransportKind::None: break;
  }
  return nullptr;
}

}  // namespace tavo
