// Shared by all bootloader steps: sending a request, reading the answer, failing, and trying again.
#include <algorithm>
#include <array>
#include <cassert>
#include <cstdarg>
#include <cstdio>

#include "engine/firmware_updater.h"
#include "package/hardware_identity.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

constexpr std::uint32_t kEngineSender = 1;
constexpr std::uint32_t kOnlyChannel = 0;
constexpr std::size_t kMaxErrorText = 199;
constexpr std::chrono::milliseconds kRetryPause{1000};
constexpr std::chrono::milliseconds kIdentityTimeout{15000};

// A device with this software id takes any firmware of its kind and knows no labels.
constexpr std::int32_t kSoftwareIdNoLabel = 0xEE00;

const FirmwareImage kNoFirmware{};

}  // namespace

// Until an image is selected, the steps take their facts about the device family from the first one.
const FirmwareImage& FirmwareUpdater::FirstImage() const {
  return m_firmwareImages.empty() ? kNoFirmware : m_firmwareImages.front();
}

const FirmwareImage& FirmwareUpdater::SelectedFirmware() const {
  return m_selectedFirmware ? *m_selectedFirmware : kNoFirmware;
}

std::uint16_t FirmwareUpdater::ApplicationRequestId() const {
  return FindBootloaderMessageKind(FirstImage()) == 1 ? kAlternativeApplicationRequest
                                                      : kApplicationRequest;
}

std::uint16_t FirmwareUpdater::AnswerValue() const {
  return static_cast<std::uint16_t>(m_rxMessage.payload[0] | (m_rxMessage.payload[1] << 8));
}

bool FirmwareUpdater::SoftwareIdIsNoLabel() const {
  return (m_softwareId & 0xFFFF) == kSoftwareIdNoLabel;
}

bool FirmwareUpdater::CommSendTavo(std::uint16_t id, const std::uint8_t* payload,
                                   std::uint8_t length) {
  if (!Transport() || !m_statusHandler) {
    m_log.LogInfo("CommSendTavo: No ICOMM Sender specified.");
    return false;
  }
  if (Transport()->SendTavoMessage(kEngineSender, kOnlyChannel, id, payload, length)) return true;
  // The device may hold half a frame, and the link still awaits its answer. Both forget it in time; a
  // request sent earlier would get the wrong answer.
  WaitUntilQuiet();
  return false;
}

void FirmwareUpdater::CommSendRaw(const std::uint8_t* bytes, std::int32_t length) {
  assert(bytes != nullptr && length > 0);
  if (!Transport()) return m_log.LogInfo("CommSendRaw: No ICOMM Sender specified.");
  Transport()->SendRawData(bytes, length);
}

// True when the current request was answered after all.
bool FirmwareUpdater::DrainLine() {
  if (!Transport()) return false;
  const bool answered = Transport()->WaitUntilQuiet();
  Transport()->DiscardInput();
  return answered;
}

void FirmwareUpdater::CommSendEscape() {
  CommSendRaw(kEscapeSequence.data(), static_cast<std::int32_t>(kEscapeSequence.size()));
}

bool FirmwareUpdater::TrySend(const Command& command, std::span<const std::uint8_t> arguments) {
  assert(arguments.size() <= kMaxBlockSize);
  std::array<std::uint8_t, std::tuple_size_v<decltype(PayloadHead::bytes)> + kMaxBlockSize> payload;
  const auto head = std::copy_n(command.head.bytes.begin(), command.head.length, payload.begin());
  const auto end = std::copy(arguments.begin(), arguments.end(), head);
  // Before the outcome is known: a request that fails may still have reached the device.
  m_evidence.Sent(command.bearing);
  m_lastBearing = command.bearing;
  if (!CommSendTavo(command.id, payload.data(), static_cast<std::uint8_t>(end - payload.begin()))) {
    m_evidence.Unanswered(command.bearing);
    return false;
  }
  if (command.sentLine) m_log.LogInfo("%s", command.sentLine);
  return true;
}

StepResult FirmwareUpdater::Send(const Command& command, std::span<const std::uint8_t> arguments) {
  return TrySend(command, arguments) ? StepResult::Wait : FailSend(command);
}

StepResult FirmwareUpdater::FailSend(const Command& command) {
  assert(command.sendErrorText != nullptr);
  return Fail(command.sendError, "%s", command.sendErrorText);
}

StepResult FirmwareUpdater::OnTimeout(const Command& command) {
  const StepResult result = Tolerate(command);
  if (!command.timeoutText) return result;
  return Fail(ErrorCode::Timeout, "%s", command.timeoutText);
}

StepResult FirmwareUpdater::Tolerate(const Command& command) {
  if (command.timeoutLine && command.timeoutLevel == LogLevel::Warn) {
    m_log.LogWarn("%s", command.timeoutLine);
  } else if (command.timeoutLine) {
    m_log.LogInfo("%s", command.timeoutLine);
  }
  return StepResult::Done;
}

StepResult FirmwareUpdater::Fail(ErrorCode code, const char* format, ...) {
  assert(code != ErrorCode::None);
  std::array<char, kMaxErrorText + 1> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  m_errorCode = code;
  m_errorText = text.data();
  return StepResult::Failed;
}

// The pause and the next try run inside this call, so it must be the step's last.
StepResult FirmwareUpdater::RetryAfterPause() {
  assert(m_retryCount < m_maxRetries);
  ++m_retryCount;
  Report({StatusKind::WaitAndResume, kRetryStep, {}, kRetryPause});
  return StepResult::Wait;
}

// The time limit counts from the first try: each try waits for the link's answer timeout.
StepResult FirmwareUpdater::RequestValue(StepPhase phase, const char* name, const Command& command,
                                         std::int32_t& destination, bool failOnTimeout) {
  switch (phase) {
    case StepPhase::Start:
      destination = -1;
      m_valueRequestStart = m_platform.MonotonicNow();
      break;
    case StepPhase::Answer:
      destination = AnswerValue();
      m_log.LogInfo("FirmwareUpdater: %s received: 0x%.4X", name,
                    static_cast<unsigned>(destination));
      return StepResult::Done;
    case StepPhase::Timeout:
      if (m_platform.MonotonicNow() - m_valueRequestStart <= kIdentityTimeout) break;
      return failOnTimeout ? OnTimeout(command) : Tolerate(command);
  }
  return Send(command);
}

}  // namespace tavo
