#include "transport/i_comm_interface.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <limits>

#include "log/displayable.h"

namespace tavo {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kReceiveCapacity = 256;

// Finer steps would only add rounding.
constexpr milliseconds kTickStep{10};

// The pause after a failed read before we look for the device again: short enough that a person who
// plugs it in sees no delay, long enough to spare processor and log.
constexpr milliseconds kReconnectPace{250};

// An adapter holds input back for up to its latency period (16 ms), so only a longer silence means
// that nothing is left. A device that never stops sending must not stop us.
constexpr milliseconds kInputSilence{30};
constexpr int kMaxDiscardedReads = 100;

// A request may have to wait for its own answer timer, then for half a frame that came meanwhile.
constexpr milliseconds kQuietBound{TavoLink::kAnswerTimeoutMs + TavoLink::kQueueTimeoutMs +
                                   FrameAssembler::kInterByteTimeoutMs};

std::uint16_t SaturatedMs(milliseconds elapsed) {
  constexpr milliseconds::rep kMax = std::numeric_limits<std::uint16_t>::max();
  return static_cast<std::uint16_t>(std::min(elapsed.count(), kMax));
}

unsigned Count(std::size_t devices) { return static_cast<unsigned>(devices); }

std::string Place(const CCommDevDesc& device) {
  if (device.bus == 0)
    return "adapter " + std::to_string(device.deviceRef) + ", serial number " +
           Displayable(device.port);
  return "port " + device.port + " on bus " + std::to_string(device.bus);
}

}  // namespace

ICommInterface::ICommInterface(TavoLink& link, Platform& platform, Logger& log)
    : m_platform(platform), m_log(log), m_link(link) {
  m_link.Reset();
}

bool ICommInterface::SendRawData(const std::uint8_t* /*data*/, std::int32_t length) {
  if (length > 0) CountEcho(static_cast<std::uint32_t>(length));
  return true;
}

bool ICommInterface::ReceiveRawData(std::uint8_t* buffer, std::int32_t* length) {
  StripEcho(buffer, length);
  return true;
}

std::optional<std::string> ICommInterface::FirstPort() {
  const std::vector<CCommDevDesc>& devices = *EnumerateDevices();
  const auto first = std::ranges::find(devices, true, &CCommDevDesc::isReadable);
  if (first == devices.end()) return std::nullopt;
  if (devices.size() > 1) {
    m_log.LogWarn("CommInterface: No device named, %u found: Taking %s", Count(devices.size()),
                  Place(*first).c_str());
  }
  return first->port;
}

const CCommDevDesc* ICommInterface::FindPort(const std::vector<CCommDevDesc>& devices,
                                             const std::string& port) {
  const auto found = std::ranges::find(devices, port, &CCommDevDesc::port);
  if (found == devices.end() || port.empty()) return nullptr;
  const auto count = std::ranges::count(devices, port, &CCommDevDesc::port);
  if (count > 1) {
    m_log.LogWarn("CommInterface: %u devices of this name: Taking %s",
                  Count(static_cast<std::size_t>(count)), Place(*found).c_str());
  }
  return &*found;
}

void ICommInterface::CountEcho(std::uint32_t bytesSent) {
  if (m_echo) m_pendingEcho += bytesSent;
}

void ICommInterface::StripEcho(std::uint8_t* buffer, std::int32_t* length) {
  if (!m_echo || *length <= 0) return;
  const auto received = static_cast<std::uint32_t>(*length);
  const std::uint32_t echoed = std::min(m_pendingEcho, received);
  std::memmove(buffer, buffer + echoed, received - echoed);
  m_pendingEcho -= echoed;
  *length = static_cast<std::int32_t>(received - echoed);
}

bool ICommInterface::SendTavoMessage(std::uint32_t sender, std::uint32_t channel, std::uint32_t id,
                                     const std::uint8_t* data, std::int32_t length) {
  if (sender == 0 || length < 0 || length > kMaxPayload) {
    m_log.LogDebug("CommInterface: SendTavoMessage: Queue full.");
    return false;
  }
  TavoMessage message;
  message.id = static_cast<std::uint16_t>(id);
  message.length = static_cast<std::uint8_t>(length);
  if (data != nullptr) std::copy_n(data, length, message.payload.begin());
  // Our own work since the last poll (a slow console, a slow disk) does not count as the device's.
  if (m_link.IsQuiet()) m_lastTickMs = m_platform.MonotonicNow();
  if (channel != 0 || !m_link.Enqueue(message)) {
    m_log.LogDebug("CommInterface: SendTavoMessage: I/O Error.");
    return false;
  }

  m_link.LinkService();
  const std::span<const std::uint8_t> frame = m_link.TakeTransmitBytes();
  m_awaitedId = id;
  if (!SendRawData(frame.data(), static_cast<std::int32_t>(frame.size()))) {
    m_log.LogDebug("CommInterface: SendTavoMessage: I/O Error.");
    return false;
  }
  return true;
}

bool ICommInterface::ReceiveTavoMessage(TavoMessage* out, bool* timedOut) {
  assert(out != nullptr && timedOut != nullptr);
  AdvanceTimers();
  ReadLine();
  return m_link.HasResponse() && HandOut(out, timedOut);
}

void ICommInterface::AdvanceTimers() {
  const milliseconds now = m_platform.MonotonicNow();
  if (!m_lastTickMs) m_lastTickMs = now;
  const milliseconds elapsed = now - *m_lastTickMs;
  assert(elapsed >= elapsed.zero());
  if (elapsed < kTickStep) return;
  m_lastTickMs = now;
  m_link.LinkTick(SaturatedMs(elapsed));
}

void ICommInterface::ReadLine() {
  std::array<std::uint8_t, kReceiveCapacity> buffer;
  auto length = static_cast<std::int32_t>(buffer.size());
  const bool wasOpen = IsOpen();
  if (!ReceiveRawData(buffer.data(), &length)) {
    // The failed read may have reconnected already.
    if (wasOpen || !IsOpen()) Reconnect();
    m_platform.Sleep(kReconnectPace);
  } else if (length > 0) {
    assert(static_cast<std::size_t>(length) <= buffer.size());
    m_link.Feed({buffer.data(), static_cast<std::size_t>(length)});
  }
}

bool ICommInterface::HandOut(TavoMessage* out, bool* timedOut) {
  const Response response = m_link.TakeResponse();
  *timedOut = !response.has_value();
  if (!response) {
    // By now every echo has come; a lost one must not swallow the next answer.
    m_pendingEcho = 0;
    return true;
  }
  if (m_awaitedId != 0 && response->id != m_awaitedId) return false;
  *out = *response;
  m_awaitedId = 0;
  return true;
}

void ICommInterface::DiscardLeftovers() {
  m_link.Reset();
  m_link.DropResponses();
  m_awaitedId = 0;
  m_pendingEcho = 0;
  LeaveOutPause();
  DiscardInput();
}

void ICommInterface::DiscardInput() {
  std::array<std::uint8_t, kReceiveCapacity> buffer;
  milliseconds lastInput = m_platform.MonotonicNow();
  for (int read = 0; read < kMaxDiscardedReads; ++read) {
    auto length = static_cast<std::int32_t>(buffer.size());
    if (!ReceiveRawData(buffer.data(), &length)) return;
    const milliseconds now = m_platform.MonotonicNow();
    if (length > 0) lastInput = now;
    if (now - lastInput >= kInputSilence) return;
  }
}

bool ICommInterface::WaitUntilQuiet() {
  m_link.DropResponses();
  bool answered = false;
  if (m_link.IsQuiet()) return answered;
  const milliseconds start = m_platform.MonotonicNow();
  while (!m_link.IsQuiet() && m_platform.MonotonicNow() - start < kQuietBound) {
    TavoMessage dropped;
    bool timedOut = false;
    answered |= ReceiveTavoMessage(&dropped, &timedOut) && !timedOut;
  }
  m_link.Reset();
  m_link.DropResponses();
  return answered;
}

}  // namespace tavo
