#include "api/process_objects.h"

#include <atomic>

#include "transport/transport_factory.h"

namespace tavo {
namespace {

// Stays below zero once the objects have been destroyed, however many calls follow.
std::atomic<int> callsUnderWay = 0;
constexpr int kDestroyed = -1'000'000'000;

// A host may end its process while one of its threads is in an exported function. On some systems
// that thread still runs while static objects are destroyed; on others it has been killed, perhaps
// holding a lock. Either way its objects are left alone and end with the process.
struct Owner {
  ProcessObjects* objects = new ProcessObjects;

  Owner() = default;
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() {
    int none = 0;
    if (callsUnderWay.compare_exchange_strong(none, kDestroyed)) delete objects;
  }
};

}  // namespace

ExportedCall::ExportedCall() : m_granted(callsUnderWay++ >= 0) {}

ExportedCall::~ExportedCall() { --callsUnderWay; }

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
