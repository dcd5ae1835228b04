#include "api/process_objects.h"

#include "api/transport_factory.h"

namespace tavo {

// The machine's seams are made first, so they end last: a transport still closes its device, and says
// so, while these objects end.
ProcessObjects::ProcessObjects()
    : log(SystemPlatform()),
      holder(
          SystemPlatform(),
          [this](TransportKind kind) {
            return MakeTransport(kind, {link, SystemPlatform(), log, SystemLibUsb(), SystemD2xx()});
          }),
      engine(SystemPlatform(), log, holder) {
  SystemLibUsb();
  SystemD2xx();
}

ProcessObjects& ProcessObjects::Instance() {
  static ProcessObjects objects;
  return objects;
}

FirmwareUpdater& FirmwareUpdater::Instance() { return ProcessObjects::Instance().engine; }

TransportHolder& TransportHolder::Instance() { return ProcessObjects::Instance().holder; }

}  // namespace tavo
