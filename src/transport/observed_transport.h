// A transport that reports to an observer what goes over its line. It changes nothing.
//
//   ObservedTransport<CCommWinUSB> usb(observer, link, platform, log, libUsb);
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "transport/i_comm_interface.h"

namespace tavo {

// Called by the thread that uses the transport, after each operation.
class TransportObserver {
 public:
  enum class PollResult { Nothing, Answer, Timeout };
  using Bytes = std::span<const std::uint8_t>;  // valid during the call

  virtual ~TransportObserver() = default;

  // Never empty. Not `ok`: an unknown part of the bytes has been sent.
  virtual void BytesSent(bool /*ok*/, Bytes /*bytes*/) {}
  // Empty when nothing came, or not `ok`.
  virtual void BytesReceived(bool /*ok*/, Bytes /*bytes*/, std::chrono::milliseconds /*took*/) {}
  virtual void Reconnected(bool /*ok*/) {}
  // `answer` is set only with PollResult::Answer.
  virtual void Polled(PollResult /*result*/, const TavoMessage& /*answer*/) {}
};

template <class Transport>
class ObservedTransport final : public Transport {
 public:
  // `observer` must outlive the transport.
  template <typename... Arguments>
  explicit ObservedTransport(TransportObserver& observer, Arguments&&... arguments)
      : Transport(std::forward<Arguments>(arguments)...), m_observer(observer) {}

  bool SendRawData(const std::uint8_t* data, std::int32_t length) override {
    const bool ok = Transport::SendRawData(data, length);
    if (length > 0) m_observer.BytesSent(ok, {data, static_cast<std::size_t>(length)});
    return ok;
  }
  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    const auto begin = this->m_platform.MonotonicNow();
    const bool ok = Transport::ReceiveRawData(buffer, length);
    m_observer.BytesReceived(ok, {buffer, ok ? static_cast<std::size_t>(*length) : 0},
                             this->m_platform.MonotonicNow() - begin);
    return ok;
  }
  bool Reconnect() override {
    const bool ok = Transport::Reconnect();
    m_observer.Reconnected(ok);
    return ok;
  }
  bool ReceiveTavoMessage(TavoMessage* out, bool* timedOut) override {
    using enum TransportObserver::PollResult;
    const bool result = Transport::ReceiveTavoMessage(out, timedOut);
    m_observer.Polled(!result ? Nothing : *timedOut ? Timeout : Answer, *out);
    return result;
  }

 private:
  TransportObserver& m_observer;
};

}  // namespace tavo
