// After writing: verification, start of the application, and its sign of life. The same start
// request also leads a device found in its bootloader back to its application.
#include "engine/firmware_updater.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

constexpr int kFirstVerifyingBootloader = 3;
constexpr std::uint32_t kApplicationWaitMs = 25000;

std::uint32_t LittleEndian32(const std::uint8_t* bytes) {
  return bytes[0] | (std::uint32_t{bytes[1]} << 8) | (std::uint32_t{bytes[2]} << 16) |
         (std::uint32_t{bytes[3]} << 24);
}

}  // namespace

StepResult FirmwareUpdater::Verify(StepPhase phase) {
  if (m_bootloaderVersion < kFirstVerifyingBootloader) {
    m_log.LogInfo("FirmwareUpdater: Skip Verify: Not supported by bootloader version %d.",
                  m_bootloaderVersion);
    return StepResult::Done;
  }
  switch (phase) {
    case StepPhase::Start: return Send(kVerify);
    case StepPhase::Answer: return CompareChecksums();
    case StepPhase::Timeout: return OnTimeout(kVerify);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::CompareChecksums() {
  const std::uint32_t calculated = LittleEndian32(m_rxMessage.payload.data());
  const std::uint32_t reference = LittleEndian32(m_rxMessage.payload.data() + sizeof(calculated));
  const bool equal = calculated == reference;
  // Two missing checksums are equal too, but they are no evidence.
  if (m_rxMessage.length >= 2 * sizeof(calculated)) {
    m_evidence.Verified(equal);
    m_checksum = calculated;
    m_expectedChecksum = reference;
  }
  m_log.LogInfo("FirmwareUpdater: Verify: %s Calc:0x%.8X IAR:0x%.8X",
                equal ? "successful" : "failed", calculated, reference);
  if (equal) return StepResult::Done;
  return Fail(ErrorCode::Verify, "Error: Verify. CRC calculation failed.");
}

StepResult FirmwareUpdater::StartApplication(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: return Send(kStartApplication);
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Start Application: Ok");
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kStartApplication);
  }
  return StepResult::Wait;
}

// A device that runs its application does not answer this; that is the normal case.
StepResult FirmwareUpdater::LeaveBootloader(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: return Send(kLeaveBootloader);
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Start Application: Bootloader was active");
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kLeaveBootloader);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::WaitForApplication(StepPhase phase) {
  return WaitForApplicationBody(phase, true);
}

StepResult FirmwareUpdater::WaitForApplicationTolerant(StepPhase phase) {
  return WaitForApplicationBody(phase, false);
}

StepResult FirmwareUpdater::WaitForApplicationBody(StepPhase phase, bool failOnTimeout) {
  switch (phase) {
    case StepPhase::Start: m_waitStartTick = m_platform.TickCount(); break;
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Application started");
      return StepResult::Done;
    case StepPhase::Timeout:
      if (m_platform.TickCount() - m_waitStartTick <= kApplicationWaitMs) {
        m_log.LogInfo("%s", kWaitForApplication.timeoutLine);
        break;
      }
      if (failOnTimeout) return OnTimeout(kWaitForApplication);
      m_log.LogInfo("FirmwareUpdater: Warning: Wait for Application");
      return StepResult::Done;
  }
  if (TrySend(kWaitForApplication)) return StepResult::Wait;
  m_log.LogInfo("FirmwareUpdater: Error: Wait for Application");
  return FailSend(kWaitForApplication);
}

}  // namespace tavo
