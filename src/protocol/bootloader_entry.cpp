// Enters the bootloader and checks its version.
#include "engine/firmware_updater.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

constexpr int kOldestBootloader = 1;
constexpr int kFirstBufferedBootloader = 2;  // takes a frame in one transfer

}  // namespace

StepResult FirmwareUpdater::CallBootloader(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: {
      Command command = kCallBootloader;
      command.id = ApplicationRequestId();
      return Send(command);
    }
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Call Bootloader: Ok");
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kCallBootloader);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::CheckVersion(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start:
      if (TrySend(kCheckVersion)) return StepResult::Wait;
      if (m_retryCount >= m_maxRetries) return FailSend(kCheckVersion);
      m_log.LogInfo("FirmwareUpdater: Check Version: Error: Retry: %d", m_retryCount);
      return RetryAfterPause();
    case StepPhase::Answer: return AcceptBootloader();
    case StepPhase::Timeout:
      m_log.LogInfo("FirmwareUpdater: Check Version: Timeout. Retry: %d", m_retryCount);
      if (m_retryCount >= m_maxRetries) return OnTimeout(kCheckVersion);
      return RetryAfterPause();
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::AcceptBootloader() {
  m_retryCount = 0;
  m_bootloaderVersion = m_rxMessage.payload[0];
  if (m_bootloaderVersion < kOldestBootloader) {
    m_log.LogInfo("FirmwareUpdater: Check Version: Expected Bootloader %d | Received Version %d",
                  kOldestBootloader, m_bootloaderVersion);
    return Fail(ErrorCode::BootloaderVersion,
                "Error: Bootloader incompatible: Received Version: %d", m_bootloaderVersion);
  }
  m_blockSize = m_rxMessage.payload[1];
  m_log.LogInfo("FirmwareUpdater: Check Version: Bootloader %d | BlockSize %d", m_bootloaderVersion,
                static_cast<int>(m_blockSize));
  if (m_bootloaderVersion >= kFirstBufferedBootloader) {
    SetSendMode(SendMode::Buffer, "FirmwareUpdater: SendMode: BUFFER aktivated");
  }
  return StepResult::Done;
}

}  // namespace tavo
