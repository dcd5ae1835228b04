#include "api/process_objects.h"

#include "api/transport_factory.h"

namespace tavo {
namespace {

// A host may end its process while an update runs in one of its threads. On some systems that thread
// still goes on while static objects are destroyed, on others it has been ended where it stood,
// perhaps with a lock held: what it uses is left alone, and goes with the process.
struct Owner {
  ProcessObjects* objects = new ProcessObjects;

  Owner() = default;
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() {
    if (!objects->engine.IsInUse()) delete objects;
  }
};

}  // namespace

ProcessObjects::ProcessObjects()
    : log(SystemPlatform()),
      holder(SystemPlatform(),
             [this](TransportKind kind) {
               return MakeTransport(kind, {link, SystemPlatform(), log, SystemLibUsb(), *d2xx});
             }),
      engine(SystemPlatform(), log, holder) {}

ProcessObjects& ProcessObjects::Instance() {
  static Owner owner;
  return *owner.objects;
}

FirmwareUpdater& FirmwareUpdater::Instance() { return ProcessObjects::Instance().engine; }

TransportHolder& TransportHolder::Instance() { return ProcessObjects::Instance().holder; }

}  // namespace tavo
