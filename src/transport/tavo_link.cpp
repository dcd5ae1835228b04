#include "transport/tavo_link.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace tavo {

void TavoLink::Reset() {
  std::deque<Response> responses = std::move(m_responseList);
  FrameAssembler assembler = m_assembler;
  assembler.Reset();
  *this = TavoLink();
  m_responseList = std::move(responses);
  m_assembler = assembler;
}

void TavoLink::SetFrameFormat(std::uint8_t format) {
  if (format < kFrameCodecs.size()) m_frameFormat = format;
}

bool TavoLink::Enqueue(const TavoMessage& message) {
  assert(message.length <= kMaxPayload);
  if (m_queued == kQueueSlots) return false;
  m_transmitQueue[m_queued++] = {message, kQueueTimeoutMs};
  return true;
}

void TavoLink::Become(Line next) {
  assert(next == Line::Free ? m_line != Line::Free
                            : m_line == (next == Line::Framed ? Line::Free : Line::Framed));
  m_line = next;
}

void TavoLink::LinkService() {
  const std::optional<TavoMessage> message = m_assembler.TakeFrame(Codec());
  if (message && AnswerIsAwaited() && message->id == m_expectedId) {
    PushResponse(message);
    Become(m_line == Line::Framed ? Line::Answered : Line::Free);
  } else if (message) {
    m_assembler.Refuse(*message, m_expectedId);
  }
  if (m_line == Line::Free && m_assembler.IsIdle() && m_queued > 0) StartNextRequest();
}

void TavoLink::StartNextRequest() {
  const TavoMessage message = m_transmitQueue[0].message;
  RemoveQueued(0);
  std::uint8_t frameEnd = 0;
  bool acceptable = false;
  Codec().Encode(message, m_transmitBuffer);
  Codec().ParseHeader(m_transmitBuffer[0], &frameEnd, &acceptable);
  assert(acceptable);
  m_transmitLength = std::size_t{frameEnd} + 1;
  m_expectedId = message.id;
  m_assembler.ForgetRefused();
  m_lineTimerMs = kAnswerTimeoutMs;
  Become(Line::Framed);
}

std::span<const std::uint8_t> TavoLink::TakeTransmitBytes() {
  if (m_line != Line::Framed && m_line != Line::Answered) return {};
  Become(m_line == Line::Framed ? Line::Awaited : Line::Free);
  return {m_transmitBuffer.data(), m_transmitLength};
}

void TavoLink::Feed(std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) m_assembler.PutByte(byte, Codec());
  LinkService();
}

void TavoLink::LinkTick(std::uint16_t elapsedMs) {
  m_assembler.Tick(elapsedMs);
  TickQueue(elapsedMs);
  TickLine(elapsedMs);
}

void TavoLink::TickQueue(std::uint16_t elapsedMs) {
  for (std::size_t slot = 0; slot < m_queued;) {
    std::uint16_t& timer = m_transmitQueue[slot].queueTimerMs;
    if (timer > elapsedMs) {
      timer = static_cast<std::uint16_t>(timer - elapsedMs);
      ++slot;
    } else {
      PushResponse(std::nullopt);
      RemoveQueued(slot);
    }
  }
}

// A frame that is not taken in time is abandoned.
void TavoLink::TickLine(std::uint16_t elapsedMs) {
  if (m_line == Line::Free) return;
  if (m_lineTimerMs > elapsedMs) {
    m_lineTimerMs = static_cast<std::uint16_t>(m_lineTimerMs - elapsedMs);
    return;
  }
  if (AnswerIsAwaited()) PushResponse(std::nullopt);
  Become(Line::Free);
}

void TavoLink::RemoveQueued(std::size_t slot) {
  assert(slot < m_queued);
  const auto first = m_transmitQueue.begin() + static_cast<std::ptrdiff_t>(slot);
  std::copy(first + 1, m_transmitQueue.begin() + static_cast<std::ptrdiff_t>(m_queued), first);
  --m_queued;
}

void TavoLink::PushResponse(const Response& response) { m_responseList.push_back(response); }

Response TavoLink::TakeResponse() {
  assert(HasResponse());
  const Response response = m_responseList.front();
  m_responseList.pop_front();
  return response;
}

bool TavoLink::IsQuiet() const {
  return m_line == Line::Free && m_queued == 0 && m_assembler.IsIdle();
}

}  // namespace tavo
