#include "engine/transport_holder.h"

#include <cassert>
#include <utility>

namespace tavo {
namespace {

constexpr std::chrono::milliseconds kSettleTime{100};
constexpr std::uint8_t kFrameFormat = 0;

}  // namespace

TransportHolder::TransportHolder(Platform& platform, TransportFactory factory)
    : m_platform(platform), m_factory(std::move(factory)) {
  assert(m_factory != nullptr);
}

TransportHolder::~TransportHolder() {
  if (m_transport) m_platform.Sleep(kSettleTime);
}

bool TransportHolder::SelectTransport(TransportKind kind) {
  if (m_transport && kind == m_kind) return true;
  // The old one goes first: a new transport resets the link that both share.
  m_transport.reset();
  m_kind = TransportKind::None;
  m_transport = m_factory(kind);
  if (m_transport) m_kind = kind;
  return m_transport != nullptr;
}

ICommInterface* TransportHolder::SelectFor(const DeviceTarget& target) {
  if (!SelectTransport(target.kind)) return nullptr;
  m_transport->SetFrameFormat(kFrameFormat);
  m_transport->SetEcho(target.echo);
  m_transport->SetLineSettings({.baudRate = target.baudRate});
  return m_transport.get();
}

}  // namespace tavo
