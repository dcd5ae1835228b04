// Owns the transport of the current or last update. The next update reuses a transport of its own
// kind and replaces one of the other kind.
#pragma once

#include <functional>
#include <memory>

#include "transport/device_target.h"
#include "transport/i_comm_interface.h"

namespace tavo {

// Makes a transport of the given kind; null for a kind that does not exist.
using TransportFactory = std::function<std::unique_ptr<ICommInterface>(TransportKind)>;

class TransportHolder {
 public:
  TransportHolder(Platform& platform, TransportFactory factory);
  // Gives a device that was in use 100 ms to finish its last request, then destroys the transport.
  ~TransportHolder();
  TransportHolder(const TransportHolder&) = delete;
  TransportHolder& operator=(const TransportHolder&) = delete;

  // The one holder of the process; for the exports only.
  static TransportHolder& Instance();

  // Holds a transport of `kind`, the one already held when it is of that kind. False, holding
  // nothing, for a kind that does not exist.
  bool SelectTransport(TransportKind kind);

  // The same, with the transport set up for the line to `target`; then OpenPort opens the device.
  // Null for a kind that does not exist.
  ICommInterface* SelectFor(const DeviceTarget& target);

  ICommInterface* Transport() const { return m_transport.get(); }
  TransportKind Kind() const { return m_kind; }

 private:
  Platform& m_platform;
  TransportFactory m_factory;
  std::unique_ptr<ICommInterface> m_transport;
  TransportKind m_kind = TransportKind::None;
};

}  // namespace tavo
