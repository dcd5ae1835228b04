// An open device, and everything that the library needs around it: the log, the link and the holder
// of the transport. Made for one command on one device.
//
//   Session session(machine, platform);
//   session.Open(target);
//   FirmwareUpdater engine(platform, session.Log(), session.Holder());
#pragma once

#include <cstdint>
#include <optional>

#include "device/target.h"
#include "engine/transport_holder.h"
#include "log/logger.h"
#include "platform/d2xx.h"
#include "text/machine.h"
#include "text/options.h"
#include "transport/observed_transport.h"
#include "transport/tavo_link.h"

namespace tavo::tool {

// --keep-latency: turns off `shortLatency`, which begins as true.
void AddLatencyOption(CommandOptions& command, bool& shortLatency);

class Session {
 public:
  // `platform` is the one that log and transport write through. An observer learns of the
  // transport's traffic. All of them must outlive the session.
  Session(const Machine& machine, Platform& platform, TransportObserver* observer = nullptr);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Asks the device nothing. Throws a Refusal when it cannot be opened. An adapter holds short input back
  // until its latency timer ends, usually 16 ms: as long as a block takes at 115200 baud.
  // `shortLatency` sets the timer to 1 ms until Close; the library leaves it alone.
  void Open(const Target& target, bool shortLatency = false);
  // Closes the device, an adapter with the latency timer that it had; Open may follow.
  void Close();

  ICommInterface& Transport() { return *m_holder.Transport(); }
  Logger& Log() { return m_log; }
  TransportHolder& Holder() { return m_holder; }

 private:
  void ShortenLatency();
  void RestoreLatency();
  // Of the open adapter; null for any other device.
  D2xxHandle Adapter();

  D2xx& m_adapters;
  std::optional<std::uint8_t> m_latencyMs;  // of the adapter, before it was shortened
  Logger m_log;
  TavoLink m_link;
  TransportHolder m_holder;
};

}  // namespace tavo::tool
