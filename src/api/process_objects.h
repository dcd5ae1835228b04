// The objects that live as long as the library is loaded. The first export called makes them
// together, so that they are also destroyed together and in a fixed order: the engine, the transport,
// the link that transports share, the log that all of them write to, and the adapter library. None
// of them opens anything or starts a thread before it is used.
#pragma once

#include <memory>

#include "engine/firmware_updater.h"
#include "engine/transport_holder.h"
#include "log/logger.h"
#include "platform/d2xx.h"
#include "transport/tavo_link.h"

namespace tavo {

// Lives while an exported function runs. As long as one does, in any thread, these objects are not
// destroyed; once they are, no call is granted. A process that is ending may still call: from the
// destructor of a static object older than ours, or from a thread that is still running.
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
