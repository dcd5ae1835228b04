// An open device, and everything that the library needs around it: the log, the link and the holder
// of the transport. Made for one command on one device.
//
//   Session session(machine, platform);
//   session.Open(target);
//   FirmwareUpdater engine(platform, session.Log(), session.Holder());
#pragma once

#include "device/target.h"
#include "engine/transport_holder.h"
#include "log/logger.h"
#include "text/machine.h"
#include "transport/observed_transport.h"
#include "transport/tavo_link.h"

namespace tavo::tool {

class Session {
 public:
  // `platform` is the one that log and transport write through. An observer learns of the
  // transport's traffic. All of them must outlive the session.
  Session(const Machine& machine, Platform& platform, TransportObserver* observer = nullptr);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Asks the device nothing. Throws a Refusal when it cannot be opened.
  void Open(const Target& target);
  // Closes the device; Open may follow.
  void Close();

  ICommInterface& Transport() { return *m_holder.Transport(); }
  Logger& Log() { return m_log; }
  TransportHolder& Holder() { return m_holder; }

 private:
  Logger m_log;
  TavoLink m_link;
  TransportHolder m_holder;
};

}  // namespace tavo::tool
