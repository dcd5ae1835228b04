// The objects that live as long as the library is loaded. Made together on first use, whichever
// export comes first, so that they also end together and in a fixed order: the engine, then the
// transport, then the link that transports share, the log that all of them write to, and what is
// known of adapters.
#pragma once

#include <memory>

#include "engine/firmware_updater.h"
#include "engine/transport_holder.h"
#include "log/logger.h"
#include "platform/d2xx.h"
#include "transport/tavo_link.h"

namespace tavo {

// Lives for as long as an exported function runs. While any does, in whatever thread, these objects
// are not destroyed; and when they are, no call is granted any more. A process that ends may still
// call: from the destructor of a static object that is older than ours, or from a thread that goes on.
class ExportedCall {
 public:
  ExportedCall();
  ~ExportedCall();
  ExportedCall(const ExportedCall&) = delete;
  ExportedCall& operator=(const ExportedCall&) = delete;
  bool Granted() const { return m_granted; }

 private:
  const bool m_granted;
};

struct ProcessObjects {
  ProcessObjects();

  static ProcessObjects& Instance();

  const std::unique_ptr<D2xx> d2xx = MakeSystemD2xx();
  Logger log;
  TavoLink link;
  TransportHolder holder;
  FirmwareUpdater engine;
};

}  // namespace tavo
