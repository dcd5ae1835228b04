#include "transport/tavo_link.h"

#include <algorithm>
#include <utility>

namespace tavo {

void TavoLink::Reset() {
  std::deque<Response> responses = std::move(m_responseList);
  *this = TavoLink();
  m_responseList = std::move(responses);
}

void TavoLink::SetFrameFormat(std::uint8_t format) {
  if (format < kFrameCodecs.size()) m_frameFormat = format;
}

bool TavoLink::Enqueue(const TavoMessage& message) {
  if (m_queued == kQueueSlots) return false;
  m_transmitQueue[m_queued++] = {message, kQueueTimeoutMs};
  return true;
}

void TavoLink::LinkService() {
  const std::optional<TavoMessage> message = m_assembler.TakeFrame(Codec());
  if (message && m_answerAwaited && message->id == m_expectedId) {
    PushResponse(message);
    m_answerAwaited = false;
  }
  if (m_transmitLength == 0 && m_assembler.IsIdle() && !m_answerAwaited && m_queued > 0) {
    StartNextRequest();
  }
}

void TavoLink::StartNextRequest() {
  const TavoMessage message = m_transmitQueue[0].message;
  RemoveQueued(0);
  std::uint8_t frameEnd = 0;
  bool acceptable = false;
  Codec().Encode(message, m_transmitBuffer);
  Codec().ParseHeader(m_transmitBuffer[0], &frameEnd, &acceptable);
  m_transmitLength = std::size_t{frameEnd} + 1;
  m_transmitTimerMs = kTransmitTimeoutMs;
  m_answerAwaited = true;
  m_expectedId = message.id;
  m_answerTimerMs = kAnswerTimeoutMs;
}

std::span<const std::uint8_t> TavoLink::TakeTransmitBytes() {
  return {m_transmitBuffer.data(), std::exchange(m_transmitLength, 0)};
}

void TavoLink::Feed(std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes) m_assembler.PutByte(byte, Codec());
  LinkService();
}

void TavoLink::LinkTick(std::uint16_t elapsedMs) {
  TickTransmit(elapsedMs);
  m_assembler.Tick(elapsedMs);
  TickQueue(elapsedMs);
  TickAnswer(elapsedMs);
}

void TavoLink::TickTransmit(std::uint16_t elapsedMs) {
  if (m_transmitLength == 0) return;
  if (m_transmitTimerMs > elapsedMs) {
    m_transmitTimerMs = static_cast<std::uint16_t>(m_transmitTimerMs - elapsedMs);
  } else {
    m_transmitLength = 0;  // its answer timer speaks for it
  }
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

void TavoLink::TickAnswer(std::uint16_t elapsedMs) {
  if (!m_answerAwaited) return;
  if (m_answerTimerMs > elapsedMs) {
    m_answerTimerMs = static_cast<std::uint16_t>(m_answerTimerMs - elapsedMs);
  } else {
    PushResponse(std::nullopt);
    m_answerAwaited = false;
  }
}

void TavoLink::RemoveQueued(std::size_t slot) {
  const auto first = m_transmitQueue.begin() + static_cast<std::ptrdiff_t>(slot);
  std::copy(first + 1, m_transmitQueue.begin() + static_cast<std::ptrdiff_t>(m_queued), first);
  --m_queued;
}

void TavoLink::PushResponse(const Response& response) { m_responseList.push_back(response); }

Response TavoLink::TakeResponse() {
  const Response response = m_responseList.front();
  m_responseList.pop_front();
  return response;
}

bool TavoLink::IsQuiet() const {
  return !m_answerAwaited && m_queued == 0 && m_transmitLength == 0 && m_assembler.IsIdle();
}

}  // namespace tavo
