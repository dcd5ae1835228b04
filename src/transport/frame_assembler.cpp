#include "transport/frame_assembler.h"

#include <algorithm>
#include <cassert>

namespace tavo {

void FrameAssembler::PutByte(std::uint8_t byte, const FrameCodec& codec) {
  if (IsIdle()) {
    bool acceptable = false;
    if (!codec.ParseHeader(byte, &m_frameEnd, &acceptable) || !acceptable) return;
  } else if (m_stored == m_buffer.size()) {
    return;
  }
  m_buffer[m_stored++] = byte;
  m_interByteTimerMs = kInterByteTimeoutMs;
}

std::optional<TavoMessage> FrameAssembler::TakeFrame(const FrameCodec& codec) {
  if (IsIdle() || m_stored <= m_frameEnd) return std::nullopt;
  assert(m_frameEnd < m_buffer.size());
  if (!codec.CheckFrame(m_buffer)) {
    Resynchronise(codec);
    return std::nullopt;
  }
  TavoMessage message;
  codec.Decode(m_buffer, &message);
  Reset();
  return message;
}

void FrameAssembler::Resynchronise(const FrameCodec& codec) {
  for (std::size_t k = 1; k < m_stored; ++k) {
    bool acceptable = false;
    if (!codec.ParseHeader(m_buffer[k], &m_frameEnd, &acceptable)) continue;
    if (m_frameEnd == 0) break;  // a one-byte frame cannot hold a message
    std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(k), m_buffer.end(), m_buffer.begin());
    m_stored -= k;
    return;
  }
  Reset();
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
