// The identities of the device, in its application and in its bootloader, and after the update its
// label and the bus modules that were reset.
#include <array>
#include <cassert>

#include "engine/firmware_updater.h"
#include "package/adb_view.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

// Only firmware of this kind labels its device, and needs the device id to choose the label.
constexpr int kLabellingAdbType = 5;

// The request names a module by one byte.
constexpr std::size_t kMaxModules = 256;

// Three letters of five bits each, the first one uppermost; 1 is A.
std::string ModuleName(std::uint16_t code) {
  std::string name;
  for (const int shift : {10, 5, 0}) {
    name.push_back(static_cast<char>(0x40 + ((code >> shift) & 0x1F)));
  }
  return name;
}

}  // namespace

StepResult FirmwareUpdater::RequestDeviceId(StepPhase phase) {
  const bool required = AdbView(FirstImage()).AdbType() == kLabellingAdbType;
  return RequestValue(phase, "Device-ID", kRequestDeviceId, m_deviceId, required);
}

StepResult FirmwareUpdater::RequestDeviceIdAdmin(StepPhase phase) {
  if (m_deviceId != -1) {
    m_log.LogInfo("FirmwareUpdater: Request Device-ID (Admin): Skipped.");
    return StepResult::Done;
  }
  return RequestValue(phase, "Device-ID (Admin)", kRequestDeviceIdAdmin, m_deviceId, true);
}

StepResult FirmwareUpdater::RequestSoftwareId(StepPhase phase) {
  Command command = kRequestSoftwareId;
  command.id = ApplicationRequestId();
  return RequestValue(phase, "Software-ID", command, m_softwareId, false);
}

StepResult FirmwareUpdater::RequestProcessorId(StepPhase phase) {
  m_processorId = -1;
  switch (phase) {
    case StepPhase::Start:
      if (TrySend(kRequestProcessorId)) return StepResult::Wait;
      m_log.LogInfo("FirmwareUpdater: Request Prozessor-ID: Error: Retry: %d", m_retryCount);
      if (m_retryCount >= m_maxRetries) return FailSend(kRequestProcessorId);
      return RetryAfterPause();
    case StepPhase::Answer:
      m_processorId =
          (m_rxMessage.payload[0] << 16) | (m_rxMessage.payload[1] << 8) | m_rxMessage.payload[2];
      m_retryCount = 0;
      m_log.LogInfo("FirmwareUpdater: Prozessor-ID received: 0x%.4X",
                    static_cast<unsigned>(m_processorId));
      return StepResult::Done;
    case StepPhase::Timeout:
      if (m_retryCount >= m_maxRetries) return OnTimeout(kRequestProcessorId);
      m_log.LogInfo("FirmwareUpdater: Request Prozessor-ID: Timeout. Retry: %d", m_retryCount);
      return RetryAfterPause();
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::SetLabel(StepPhase phase) {
  if (m_deviceId == -1 || SoftwareIdIsNoLabel()) {
    m_log.LogInfo("FirmwareUpdater: Set Label: Skipped");
    return StepResult::Done;
  }
  switch (phase) {
    case StepPhase::Start: return SendLabel();
    case StepPhase::Answer:
      m_log.LogInfo("FirmwareUpdater: Set Label: Ok");
      return StepResult::Done;
    case StepPhase::Timeout: return OnTimeout(kSetLabel);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::SendLabel() {
  const AdbView view(SelectedFirmware());
  if (view.AdbType() == 0) {
    m_log.LogCrit("Error: Sending: Set Label: Unknown ADB-Type");
    return Fail(ErrorCode::SetLabel, "Error: Sending: Set Label: Unknown ADB-Type");
  }
  if (view.AdbType() != kLabellingAdbType) return StepResult::Done;
  const std::int32_t label = view.EntryIndexForDevice(static_cast<std::uint16_t>(m_deviceId));
  const std::array payload{static_cast<std::uint8_t>(label)};
  if (label < 0 || !TrySend(kSetLabel, payload)) return FailSend(kSetLabel);
  m_log.LogInfo("FirmwareUpdater: Set Label: Request (Label %d)", label);
  return StepResult::Wait;
}

StepResult FirmwareUpdater::RequestResettedModules(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: {
      ForgetModules();
      const StepResult result = RequestModule(0);
      if (result == StepResult::Wait) m_log.LogInfo("FirmwareUpdater: Request resetted Modules");
      return result;
    }
    case StepPhase::Answer:
      return AnswerValue() == 0 ? ModulesComplete() : KeepModule(AnswerValue());
    case StepPhase::Timeout:
      // The update itself has succeeded; the code says that the list is missing.
      OnTimeout(kRequestModule);
      return StepResult::Done;
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::RequestModule(std::size_t index) {
  assert(index < kMaxModules);
  const std::array payload{static_cast<std::uint8_t>(index)};
  return Send(kRequestModule, payload);
}

void FirmwareUpdater::ForgetModules() {
  const std::lock_guard lock(m_modulesLock);
  m_resettedModules.clear();
}

StepResult FirmwareUpdater::KeepModule(std::uint16_t code) {
  assert(code != 0);
  if (m_resettedModules.empty()) Report({StatusKind::UpdateFailed});
  {
    const std::lock_guard lock(m_modulesLock);
    m_resettedModules.push_back(ModuleName(code));
  }
  return m_resettedModules.size() < kMaxModules ? RequestModule(m_resettedModules.size())
                                                : ModulesComplete();
}

StepResult FirmwareUpdater::ModulesComplete() {
  if (m_resettedModules.empty()) {
    m_log.LogInfo("FirmwareUpdater: No resetted modules");
    return StepResult::Done;
  }
  std::string names;
  for (const std::string& name : m_resettedModules) names += (names.empty() ? "" : ", ") + name;
  m_log.LogInfo("FirmwareUpdater: Resetted Modules %s", names.c_str());
  return StepResult::Done;
}

}  // namespace tavo
