#include "device/inquiry.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "transport/frame_assembler.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kSender = 1;
constexpr std::uint32_t kOnlyChannel = 0;

// A request may have to wait for half a frame, then in the queue, then for its answer; by then the
// link has spoken. The second bound is for a device that never stops talking.
constexpr milliseconds kLongestWait{FrameAssembler::kInterByteTimeoutMs +
                                    TavoLink::kQueueTimeoutMs + TavoLink::kAnswerTimeoutMs};
constexpr int kMostPolls = 100'000;

// A master that passes everything on to its tunnel listens for itself after these.
bool NeedsEscape(const Command& command) {
  return command.bearing == Bearing::ReportsTunnel || command.bearing == Bearing::ClosesTunnel;
}

std::uint16_t Value(const TavoMessage& answer) {
  return static_cast<std::uint16_t>(answer.payload[0] | (answer.payload[1] << 8));
}

std::optional<std::uint16_t> AskDeviceId(Inquiry& inquiry) {
  const auto id = AskValue(inquiry, kRequestDeviceId);
  return id ? id : AskValue(inquiry, kRequestDeviceIdAdmin);
}

// Which of the two message kinds a device knows is told by firmware made for it, which is not at
// hand.
std::optional<std::uint16_t> AskSoftwareId(Inquiry& inquiry) {
  const auto id = AskValue(inquiry, kRequestSoftwareId);
  if (id) return id;
  Command alternative = kRequestSoftwareId;
  alternative.id = kAlternativeApplicationRequest;
  return AskValue(inquiry, alternative);
}

std::optional<std::uint32_t> AskProcessorId(Inquiry& inquiry) {
  const std::optional<TavoMessage> answer = inquiry.Ask(kRequestProcessorId);
  if (!answer) return std::nullopt;
  const auto& bytes = answer->payload;
  return std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8 | bytes[2];
}

void AskBootloader(Inquiry& inquiry, DeviceReport& report) {
  const std::optional<TavoMessage> version = inquiry.Ask(kCheckVersion);
  if (!version) return;
  report.inBootloader = true;
  report.bootloaderVersion = version->payload[0];
  report.blockSize = version->payload[1];
  report.processorId = AskProcessorId(inquiry);
  report.applicationKiB = AskValue(inquiry, kCheckApplicationSize);
  report.hardwareId = AskValue(inquiry, kCheckHardwareId);
}

}  // namespace

std::optional<std::uint16_t> AskValue(Inquiry& inquiry, const Command& command) {
  const std::optional<TavoMessage> answer = inquiry.Ask(command);
  return answer ? std::optional(Value(*answer)) : std::nullopt;
}

bool Inquiry::Send(const Command& command, std::span<const std::uint8_t> arguments) {
  assert(command.head.length + arguments.size() <= kMaxPayload);
  m_transport.DiscardLeftovers();
  if (NeedsEscape(command)) {
    m_transport.SendRawData(kEscapeSequence.data(),
                            static_cast<std::int32_t>(kEscapeSequence.size()));
  }
  std::array<std::uint8_t, kMaxPayload> payload{};
  const auto head = std::copy_n(command.head.bytes.begin(), command.head.length, payload.begin());
  const auto end = std::copy(arguments.begin(), arguments.end(), head);
  return m_transport.SendTavoMessage(kSender, kOnlyChannel, command.id, payload.data(),
                                     static_cast<std::int32_t>(end - payload.begin()));
}

std::optional<TavoMessage> Inquiry::Ask(const Command& command,
                                        std::span<const std::uint8_t> arguments) {
  if (!Send(command, arguments)) {
    // The device may hold half a frame; it forgets it in time.
    m_transport.WaitUntilQuiet();
    return std::nullopt;
  }
  const milliseconds start = m_platform.MonotonicNow();
  for (int poll = 0; poll < kMostPolls; ++poll) {
    TavoMessage answer;
    bool timedOut = false;
    if (m_transport.ReceiveTavoMessage(&answer, &timedOut)) {
      return timedOut ? std::nullopt : std::optional(answer);
    }
    if (m_platform.MonotonicNow() - start > kLongestWait) break;
  }
  return std::nullopt;
}

std::optional<std::uint16_t> Inquiry::OpenTunnel() {
  const std::optional<std::uint16_t> tunnel = AskValue(*this, kTunnelStatus);
  return tunnel == kNoTunnelEither ? std::uint16_t{0} : tunnel;
}

void Inquiry::CloseTunnel() {
  Send(kDeinitTunnel, {});
  m_platform.Sleep(kTunnelClosing);
  m_transport.LeaveOutPause();
  m_transport.WaitUntilQuiet();
  m_transport.DiscardInput();
}

DeviceReport AskWho(Inquiry& inquiry) {
  DeviceReport report;
  // First, for the escape before the question about the tunnel might keep a master from passing
  // this one on to the bootloader behind it.
  AskBootloader(inquiry, report);
  report.tunnel = inquiry.OpenTunnel();
  if (report.inBootloader) return report;
  report.deviceId = AskDeviceId(inquiry);
  report.softwareId = AskSoftwareId(inquiry);
  return report;
}

}  // namespace tavo::tool
