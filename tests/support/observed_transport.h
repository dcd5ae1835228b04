// The transports of the library with somebody who looks on: an observer is told what each of them has
// read from the line and what each poll has handed out. It changes nothing.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <utility>

#include "transport/transport_factory.h"
#include "transport/comm_ftdi.h"
#include "transport/comm_win_usb.h"

namespace tavo::test {

class TransportObserver {
 public:
  enum class PollResult { Nothing, Answer, Timeout };

  virtual ~TransportObserver() = default;
  // `bytes` may be empty; `took` is time of the platform.
  virtual void BytesRead(std::span<const std::uint8_t> /*bytes*/,
                         std::chrono::milliseconds /*took*/) {}
  // `answer` is one only with PollResult::Answer.
  virtual void Polled(PollResult /*result*/, const TavoMessage& /*answer*/) {}
};

template <class Transport>
class ObservedTransport : public Transport {
 public:
  template <typename... Arguments>
  explicit ObservedTransport(TransportObserver& observer, Arguments&&... arguments)
      : Transport(std::forward<Arguments>(arguments)...), m_observer(observer) {}

  bool ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) override {
    const auto begin = this->m_platform.MonotonicNow();
    const bool result = Transport::ReceiveRawData(buffer, length);
    m_observer.BytesRead({buffer, result ? static_cast<std::size_t>(*length) : 0},
                         this->m_platform.MonotonicNow() - begin);
    return result;
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

// As MakeTransport; with an observer, which must outlive the transport, under its eyes.
inline std::unique_ptr<ICommInterface> MakeObserved(TransportKind kind, const TransportSeams& seams,
                                                    TransportObserver* observer) {
  const auto& [link, platform, log, usb, d2xx] = seams;
  if (observer && kind == TransportKind::Usb) {
    return std::make_unique<ObservedTransport<CCommWinUSB>>(*observer, link, platform, log, usb);
  }
  if (observer && kind == TransportKind::Ftdi) {
    return std::make_unique<ObservedTransport<CCommFTDI>>(*observer, link, platform, log, d2xx);
  }
  return MakeTransport(kind, seams);
}

}  // namespace tavo::test
