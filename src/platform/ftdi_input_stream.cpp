#include "platform/ftdi_input_stream.h"

#include <algorithm>
#include <cassert>
#include <new>

namespace tavo {

FtdiInputStream::FtdiInputStream(BulkInTransfer& transfer, std::size_t packetSize)
    : m_transfer(transfer), m_packetSize(packetSize) {}

bool FtdiInputStream::Start() {
  assert(m_state == State::Idle);
  // A packet that holds only its status would never bring a byte.
  if (m_packetSize > kPacketStatusBytes) Submit();
  if (!InFlight()) m_state = State::Failed;
  return InFlight();
}

void FtdiInputStream::Stop() {
  if (m_state == State::InFlight) {
    m_state = State::Stopping;
    m_transfer.Cancel();
  } else if (m_state != State::Stopping) {
    m_state = State::Failed;
  }
}

void FtdiInputStream::Ended(TransferEnd end, std::span<const std::uint8_t> bytes) noexcept {
  assert(InFlight());
  if (m_state == State::Stopping || end == TransferEnd::Final) {
    m_state = State::Failed;
    return;
  }
  try {
    Append(bytes);
  } catch (const std::bad_alloc&) {
    m_state = State::Failed;  // bytes are missing now; the adapter must be opened anew
    return;
  }
  m_stalled = end == TransferEnd::Stalled;
  if (end != TransferEnd::Completed) return PauseAfterFailure();
  m_failures = 0;
  SubmitIfRoom();
}

void FtdiInputStream::PauseAfterFailure() {
  m_state = ++m_failures > kMaxFailures ? State::Failed : State::Pausing;
  m_resumeAt.reset();
}

void FtdiInputStream::Resume(std::chrono::milliseconds now) {
  if (m_state != State::Pausing) return;
  if (!m_resumeAt) m_resumeAt = now + kPause;
  if (now < *m_resumeAt) return;
  if (m_stalled) m_transfer.ClearHalt();
  Submit();
}

void FtdiInputStream::Append(std::span<const std::uint8_t> bytes) {
  while (bytes.size() > kPacketStatusBytes) {
    const auto packet = bytes.first(std::min(m_packetSize, bytes.size()));
    const auto data = packet.subspan(kPacketStatusBytes);
    m_queue.insert(m_queue.end(), data.begin(), data.end());
    bytes = bytes.subspan(packet.size());
  }
}

std::uint32_t FtdiInputStream::Read(std::span<std::uint8_t> buffer) {
  const std::size_t count = std::min(buffer.size(), m_queue.size());
  const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(count);
  std::copy(m_queue.begin(), end, buffer.begin());
  m_queue.erase(m_queue.begin(), end);
  if (m_state == State::HeldBack) SubmitIfRoom();
  return static_cast<std::uint32_t>(count);
}

void FtdiInputStream::SubmitIfRoom() {
  if (m_queue.size() < kQueueBound) return Submit();
  m_state = State::HeldBack;
}

void FtdiInputStream::Submit() {
  if (!m_transfer.Submit()) return PauseAfterFailure();
  m_state = State::InFlight;
}

}  // namespace tavo
