// The abstract transport through which the update engine talks to a device.
//
// The lower layer (enumerate, open, raw bytes) is implemented by CCommWinUSB and CCommFTDI. The
// upper layer (SendTavoMessage, ReceiveTavoMessage) is implemented here once, on top of the
// TavoLink. Nothing here waits for an answer: send a request, then poll ReceiveTavoMessage until it
// returns the answer or a timeout.
//
//   transport.SetFrameFormat(0);
//   transport.Open(transport.EnumerateDevices()->front().deviceRef);
//   transport.SendTavoMessage(sender, 0, 0x120, nullptr, 0);
//   while (!transport.ReceiveTavoMessage(&answer, &timedOut)) {}
//
// All operations run on the thread that drives the update; nothing is locked. A bool result is true
// for success; nothing throws on a device failure.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "log/logger.h"
#include "platform/platform.h"
#include "transport/comm_dev_desc.h"
#include "transport/tavo_link.h"

namespace tavo {

// How bytes are handed to a USB device: one transfer per byte for old bootloaders, whose receive
// buffer holds no more, or one transfer per frame.
enum class SendMode : std::uint32_t { Byte = 0, Buffer = 1 };

// The settings of a serial line, in the codes of D2xx::SetDataCharacteristics.
struct LineSettings {
  std::uint32_t baudRate = 19200;  // bits per second
  std::uint8_t wordLength = 8;     // data bits
  std::uint8_t parity = 0;         // none
  std::uint8_t stopBits = 0;       // one
};

class ICommInterface {
 public:
  // Resets the link, which the transports of one holder share. The references must outlive the
  // transport.
  ICommInterface(TavoLink& link, Platform& platform, Logger& log);
  ICommInterface(const ICommInterface&) = delete;
  ICommInterface& operator=(const ICommInterface&) = delete;
  // Each operation keeps its place in the table of virtual functions: a new one goes behind the last.
  virtual ~ICommInterface() = default;

  // Looks for devices. The list belongs to the transport and is replaced by the next enumeration.
  virtual std::vector<CCommDevDesc>* EnumerateDevices() = 0;
  virtual bool Open(std::uint32_t deviceRef) = 0;
  virtual bool IsOpen() = 0;
  virtual void Close() = 0;
  // Finds a vanished device again, if the transport can.
  virtual bool Reconnect() = 0;

  // Sends `length` bytes. Blocks until they are handed over or a transfer has reached the bound that
  // the transport sets for each.
  virtual bool SendRawData(const std::uint8_t* data, std::int32_t length);
  // In: the capacity of `buffer`; out: the bytes delivered. Nothing received is true with length 0,
  // after a short bounded wait; false is a failed read, after which a poll calls Reconnect.
  virtual bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length);

  // Whether the line returns every byte sent, so that as many must be dropped from the input.
  virtual void SetEcho(bool on) { m_echo = on; }
  virtual bool GetEcho() { return m_echo; }
  virtual void SetFrameFormat(std::uint8_t format) { m_link.SetFrameFormat(format); }
  virtual std::uint32_t GetFrameFormat() { return m_link.GetFrameFormat(); }

  // Queues one request and hands its frame to the line. `sender` is a token of the requester, not
  // 0; `channel` must be 0; `data` may be null (all zero); `length` is 0..128. True when the
  // request was accepted and its bytes were handed over. After a failed hand-over the request stays
  // awaited: its timeout still comes.
  virtual bool SendTavoMessage(std::uint32_t sender, std::uint32_t channel, std::uint32_t id,
                               const std::uint8_t* data, std::int32_t length);

  // One poll. False: nothing to hand out yet. True with *timedOut false: the answer is in *out.
  // True with *timedOut true: the request's time is up, *out is untouched. A silent poll waits a
  // few milliseconds for input, so that a loop of polls does not burn a processor.
  virtual bool ReceiveTavoMessage(TavoMessage* out, bool* timedOut);

  // Closes the device and releases everything that the transport uses to reach devices. The next
  // enumeration or opening sets it up again.
  virtual void EndSession() { Close(); }

  // Opens the first listed device with this `port`; a device without one cannot be opened by it. A
  // port that is not listed is reported on the console.
  virtual bool OpenPort(const std::string& /*port*/) { return false; }

  // Takes effect at the next opening. A device without a serial line ignores it.
  virtual void SetLineSettings(const LineSettings& /*settings*/) {}

  SendMode GetSendMode() const { return m_sendMode; }
  void SetSendMode(SendMode mode) { m_sendMode = mode; }

  // Keeps the time since the last poll from counting against any timer: it was our own pause, in
  // which nothing was awaited.
  void LeaveOutPause() { m_lastTickMs.reset(); }

  // The port of the first readable device listed; none without one. When there are several, the log
  // says which one this is.
  std::optional<std::string> FirstPort();

  // The bytes received since the last request began that became no answer.
  RefusedBytes Refused() const { return m_link.Refused(); }

  // The request on the control pipe, with the error, for which the last opening failed; else empty.
  const std::string& RefusedControlRequest() const { return m_refusedControlRequest; }

  // Forgets everything that an earlier update left: requests, answers, echo, received bytes.
  void DiscardLeftovers();

  // Discards received bytes until none have come for a while; bounded.
  void DiscardInput();

  // Polls until nothing is queued, awaited or half received, and drops every answer; bounded. Returns
  // at once when the line is quiet already. True when it dropped an awaited answer.
  bool WaitUntilQuiet();

 protected:
  // The first of `devices` with this port; null without one, and for an empty port. When there are
  // several, the log says which one this is.
  const CCommDevDesc* FindPort(const std::vector<CCommDevDesc>& devices, const std::string& port);

  // Counts bytes that will come back, and removes from the front of received data those that did.
  void CountEcho(std::uint32_t bytesSent);
  void StripEcho(std::uint8_t* buffer, std::int32_t* length);

  Platform& m_platform;
  Logger& m_log;

  SendMode m_sendMode = SendMode::Byte;
  bool m_echo = false;
  std::chrono::milliseconds m_sendTimeoutMs{300};
  std::string m_refusedControlRequest;

 private:
  void AdvanceTimers();
  void ReadLine();
  bool HandOut(TavoMessage* out, bool* timedOut);

  TavoLink& m_link;
  std::optional<std::chrono::milliseconds> m_lastTickMs;  // none: no poll since the last pause
  std::uint32_t m_awaitedId = 0;                          // 0 = accept any answer
  std::uint32_t m_pendingEcho = 0;                        // bytes still to be stripped
};

}  // namespace tavo
