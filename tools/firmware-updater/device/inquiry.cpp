#include "device/inquiry.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <utility>

#include "transport/frame_assembler.h"

namespace tavo::tool {
namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kSender = 1;
constexpr std::uint32_t kOnlyChannel = 0;

// A request may have to wait for half a frame, then in the queue, then for its answer; by then the
// link has given up. The second bound is for a device that never stops sending.
constexpr milliseconds kLongestWait{FrameAssembler::kInterByteTimeoutMs +
                                    TavoLink::kQueueTimeoutMs + TavoLink::kAnswerTimeoutMs};
constexpr int kMostPolls = 100'000;

constexpr milliseconds kHastyWait{100};
constexpr milliseconds kBriefWait{500};
constexpr milliseconds kAnnounceAfter{1000};
constexpr milliseconds kTunnelOpening{6000};
constexpr milliseconds kApplicationStart{25000};

struct Announcement {
  const Command& command;
  const char* who;
};

const std::array kAnnouncements{
    Announcement{kCheckVersion, "a bootloader"},
    Announcement{kWaitForApplication, "an application"},
    Announcement{kTunnelStatus, "a master module"},
    Announcement{kRequestDeviceId, "the device, for its id"},
    Announcement{kRequestDeviceIdAdmin, "the device, for its id"},
    Announcement{kRequestSoftwareId, "the application, for its software id"},
};

milliseconds LongestWait(Patience patience) {
  switch (patience) {
    case Patience::Hasty: return kHastyWait;
    case Patience::Brief: return kBriefWait;
    case Patience::Full: break;
  }
  return kLongestWait;
}

std::string WaitingFor(const Command& command) {
  const auto row = std::ranges::find_if(kAnnouncements, [&](const Announcement& announcement) {
    return announcement.command.bearing == command.bearing &&
           announcement.command.head.bytes == command.head.bytes;
  });
  const std::string who = row == kAnnouncements.end() ? "the device" : row->who;
  return "Waiting up to 4 s for an answer from " + who + ".";
}

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

// A device knows one of two message kinds; only its firmware, which is not at hand, says which.
std::optional<std::uint16_t> AskSoftwareId(Inquiry& inquiry) {
  const auto id = AskValue(inquiry, kRequestSoftwareId);
  if (id) return id;
  Command alternative = kRequestSoftwareId;
  alternative.id = kAlternativeApplicationRequest;
  return AskValue(inquiry, alternative);
}

std::optional<std::uint32_t> AskProcessorId(Inquiry& inquiry) {
  const std::optional<TavoMessage> answer = inquiry.Ask(kRequestProcessorId);
  if (!answer || answer->length < 3) return std::nullopt;
  const auto& bytes = answer->payload;
  return std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8 | bytes[2];
}

bool AskApplication(Inquiry& inquiry, Patience patience, DeviceReport& report) {
  report.signOfLife = inquiry.Ask(kWaitForApplication, patience).has_value();
  return report.signOfLife;
}

bool AskEither(Inquiry& inquiry, Patience patience, DeviceReport& report) {
  return AskApplication(inquiry, patience, report) || AskBootloader(inquiry, patience, report);
}

// Most applications answer the question about the tunnel, and bootloaders do not. So it comes first, and
// decides which of the two is asked before the other.
bool AskHastily(Inquiry& inquiry, DeviceReport& report) {
  constexpr Patience kHasty = Patience::Hasty;
  report.tunnel = inquiry.OpenTunnel(kHasty);
  if (report.tunnel) return AskEither(inquiry, kHasty, report);
  return AskBootloader(inquiry, kHasty, report) || AskApplication(inquiry, kHasty, report);
}

}  // namespace

Refusal EchoRefusal(bool echoes, const std::string& command) {
  return {ExitCode::Usage, echoes ? "line-echoes" : "line-does-not-echo",
          echoes ? "the adapter's line returns every byte sent"
                 : "the adapter's line does not return the bytes sent",
          echoes ? "add --echo" : "leave out --echo", command};
}

std::optional<std::uint16_t> AskValue(Inquiry& inquiry, const Command& command) {
  const std::optional<TavoMessage> answer = inquiry.Ask(command);
  return answer && answer->length >= 2 ? std::optional(Value(*answer)) : std::nullopt;
}

bool Inquiry::Send(const Command& command, std::span<const std::uint8_t> arguments) {
  assert(command.head.length + arguments.size() <= kMaxPayload);
  if (std::exchange(m_discards, true)) m_transport.DiscardLeftovers();
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
                                        std::span<const std::uint8_t> arguments,
                                        Patience patience) {
  if (!Send(command, arguments)) {
    // The device may hold half a frame; it forgets it in time.
    m_transport.WaitUntilQuiet();
    return std::nullopt;
  }
  auto answer = AwaitAnswer(command, LongestWait(patience));
  m_refused += m_transport.Refused();
  return answer;
}

std::optional<TavoMessage> Inquiry::AwaitAnswer(const Command& command, milliseconds longest) {
  const milliseconds start = m_platform.MonotonicNow();
  bool announced = m_announce == nullptr;
  for (int poll = 0; poll < kMostPolls; ++poll) {
    TavoMessage answer;
    bool timedOut = false;
    if (m_transport.ReceiveTavoMessage(&answer, &timedOut)) {
      return timedOut ? std::nullopt : std::optional(answer);
    }
    const milliseconds waited = m_platform.MonotonicNow() - start;
    if (waited > longest) break;
    if (!announced && waited > kAnnounceAfter) {
      announced = true;
      const std::string text = WaitingFor(command);
      if (text != std::exchange(m_announced, text)) m_announce(text);
    }
  }
  return std::nullopt;
}

// A request without a payload may be mistaken for an empty answer, so a second one has to come back
// letter for letter.
bool Inquiry::ReturnsRequests() {
  const std::optional<TavoMessage> first = Ask(kCheckVersion, Patience::Brief);
  if (!first || first->length != 0) return false;
  const std::optional<TavoMessage> second = Ask(kRequestDeviceId, Patience::Brief);
  const PayloadHead& head = kRequestDeviceId.head;
  return second && second->length == head.length &&
         std::equal(head.bytes.begin(), head.bytes.end(), second->payload.begin());
}

bool Inquiry::LineEchoes() {
  const bool echo = m_transport.GetEcho();
  const RefusedBytes refused = m_refused;  // an answer behind its echo is none of them
  m_transport.SetEcho(false);
  const bool returned = ReturnsRequests();
  m_transport.DiscardLeftovers();
  m_transport.SetEcho(echo);
  m_refused = refused;
  return returned;
}

std::optional<std::uint16_t> Inquiry::OpenTunnel(Patience patience) {
  const std::optional<TavoMessage> answer = Ask(kTunnelStatus, patience);
  if (!answer || answer->length < 2) return std::nullopt;
  return Value(*answer) == kNoTunnelEither ? std::uint16_t{0} : Value(*answer);
}

bool Inquiry::OpenTunnelTo(const TunnelRoute& route) {
  const std::array slaveAndMaster{static_cast<std::uint8_t>(route.slave),
                                  static_cast<std::uint8_t>(route.master)};
  if (!Ask(kInitTunnel, slaveAndMaster)) return false;
  m_platform.Sleep(kTunnelOpening);
  m_transport.LeaveOutPause();
  return true;
}

void Inquiry::CloseTunnel() {
  Send(kDeinitTunnel, {});
  m_platform.Sleep(kTunnelClosing);
  m_transport.LeaveOutPause();
  m_transport.WaitUntilQuiet();
  m_transport.DiscardInput();
}

bool Inquiry::StartApplication() {
  Ask(kLeaveBootloader);
  const milliseconds end = m_platform.MonotonicNow() + kApplicationStart;
  do {
    if (Ask(kWaitForApplication)) return true;
  } while (m_platform.MonotonicNow() < end);
  return false;
}

bool AskBootloader(Inquiry& inquiry, Patience patience, DeviceReport& report) {
  const std::optional<TavoMessage> version = inquiry.Ask(kCheckVersion, patience);
  if (!version || version->length < 2) return false;
  report.inBootloader = true;
  report.bootloaderVersion = version->payload[0];
  report.blockSize = version->payload[1];
  return true;
}

ExitCode FailedWith(const DeviceReport& report) {
  return report.inBootloader        ? ExitCode::FailedInBootloader
         : report.RunsApplication() ? ExitCode::FailedRuns
                                    : ExitCode::FailedUnknown;
}

void AskBootloaderFacts(Inquiry& inquiry, DeviceReport& report) {
  report.processorId = AskProcessorId(inquiry);
  if (report.processorId) inquiry.LeaveOutDiscarding();
  report.applicationKiB = AskValue(inquiry, kCheckApplicationSize);
  if (report.applicationKiB) inquiry.LeaveOutDiscarding();
  report.hardwareId = AskValue(inquiry, kCheckHardwareId);
}

DeviceReport AskWhoAnswers(Inquiry& inquiry, Patience patience) {
  DeviceReport report;
  if (patience == Patience::Hasty && AskHastily(inquiry, report)) return report;
  // The tunnel comes last: the escape before that question might keep a master from passing the others
  // on to the device behind it. Most devices answer at once, so patience is for those that do not.
  const bool answered = AskEither(inquiry, Patience::Brief, report) ||
                        (patience == Patience::Full && AskEither(inquiry, patience, report));
  const bool full = patience == Patience::Full && !answered;
  report.tunnel = inquiry.OpenTunnel(full ? Patience::Full : Patience::Brief);
  return report;
}

DeviceReport AskWho(Inquiry& inquiry) {
  DeviceReport report;
  if (!AskEither(inquiry, Patience::Brief, report)) AskEither(inquiry, Patience::Full, report);
  if (report.inBootloader) AskBootloaderFacts(inquiry, report);
  report.tunnel = inquiry.OpenTunnel();
  if (report.inBootloader) return report;
  report.deviceId = AskDeviceId(inquiry);
  report.softwareId = AskSoftwareId(inquiry);
  return report;
}

}  // namespace tavo::tool
