#include "transport/frame_assembler.h"

#include <algorithm>
#include <cassert>

namespace tavo {

void FrameAssembler::PutByte(std::uint8_t byte, const FrameCodec& codec) {
  if (IsIdle()) {
    m_ifUnfinished = RefusalReason::TooShort;
    bool acceptable = false;
    if (!codec.ParseHeader(byte, &m_frameEnd, &acceptable) || !acceptable) {
      return m_refused.Add(RefusalReason::NoHeader, 1);
    }
  } else if (m_stored == m_buffer.size()) {
    return m_refused.Add(RefusalReason::Behind, 1);
  }
  m_buffer[m_stored++] = byte;
  m_interByteTimerMs = kInterByteTimeoutMs;
}

std::optional<TavoMessage> FrameAssembler::TakeFrame(const FrameCodec& codec) {
  if (IsIdle() || m_stored <= m_frameEnd) return std::nullopt;
  assert(m_frameEnd < m_buffer.size());
  if (!codec.CheckFrame(m_buffer)) {
    Resynchronise(codec, *FaultOf(m_buffer));
    return std::nullopt;
  }
  TavoMessage message;
  codec.Decode(m_buffer, &message);
  m_stored -= std::size_t{m_frameEnd} + 1;
  Drop(m_stored, RefusalReason::Behind);
  return message;
}

void FrameAssembler::Resynchronise(const FrameCodec& codec, RefusalReason reason) {
  for (std::size_t k = 1; k < m_stored; ++k) {
    bool acceptable = false;
    if (!codec.ParseHeader(m_buffer[k], &m_frameEnd, &acceptable)) continue;
    if (m_frameEnd == 0) break;  // a one-byte frame cannot hold a message
    std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(k), m_buffer.end(), m_buffer.begin());
    m_ifUnfinished = reason;
    return Drop(k, reason);
  }
  Drop(m_stored, reason);
}

void FrameAssembler::Drop(std::size_t bytes, RefusalReason reason) {
  assert(bytes <= m_stored);
  m_refused.Add(reason, bytes);
  m_stored -= bytes;
}

void FrameAssembler::Reset() { Drop(m_stored, m_ifUnfinished); }

RefusedBytes FrameAssembler::Refused() const {
  RefusedBytes refused = m_refused;
  refused.Add(m_ifUnfinished, m_stored);
  return refused;
}

void FrameAssembler::Refuse(const TavoMessage& message, std::uint16_t awaitedId) {
  m_refused.Add(RefusalReason::Unawaited, kFrameOverhead + message.length);
  m_refused.unawaitedId = message.id;
  m_refused.awaitedId = awaitedId;
}

void FrameAssembler::Tick(std::uint16_t elapsedMs) {
  if (IsIdle()) return;
  if (m_interByteTimerMs > elapsedMs) {
    m_interByteTimerMs = static_cast<std::uint16_t>(m_interByteTimerMs - elapsedMs);
  } else {
    Reset();
  }
}

}  // namespace tavo
