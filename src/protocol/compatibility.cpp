// Before anything is erased: does the selected image fit the device?
#include <algorithm>

#include "engine/firmware_updater.h"
#include "package/adb_view.h"
#include "package/hardware_identity.h"
#include "protocol/commands.h"

namespace tavo {
namespace {

constexpr std::size_t kApplicationSizeUnit = 1024;

}  // namespace

StepResult FirmwareUpdater::CheckApplicationSize(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: return Send(kCheckApplicationSize);
    case StepPhase::Answer: return CompareApplicationSize();
    case StepPhase::Timeout: return OnTimeout(kCheckApplicationSize);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::CompareApplicationSize() {
  m_applicationKiB = AnswerValue();
  const std::size_t device = AnswerValue() * kApplicationSizeUnit;
  const std::size_t firmware = SelectedFirmware().data.size();
  m_platform.Print("FirmwareUpdater: Check Application Section Size: Device " +
                   std::to_string(device) + " | Firmware " + std::to_string(firmware) + "\n");
  const bool wholeBlocks = m_blockSize != 0 && firmware % m_blockSize == 0;
  if (firmware == device && wholeBlocks) return StepResult::Done;
  // The console has the sizes; the failure itself is reported by its code alone.
  m_platform.Print("Error: Application Size incorrect. Device: " + std::to_string(device) +
                   " FW: " + std::to_string(firmware) + "\n");
  m_errorCode = ErrorCode::ApplicationSize;
  return StepResult::Failed;
}

StepResult FirmwareUpdater::CheckHardwareId(StepPhase phase) {
  switch (phase) {
    case StepPhase::Start: return Send(kCheckHardwareId);
    case StepPhase::Answer: return CompareHardwareId();
    case StepPhase::Timeout: return OnTimeout(kCheckHardwareId);
  }
  return StepResult::Wait;
}

StepResult FirmwareUpdater::CompareHardwareId() {
  const std::uint16_t hardwareId = AnswerValue();
  m_hardwareId = hardwareId;
  m_log.LogInfo("FirmwareUpdater: Check HardwareId: HardwareID 0x%.4X", hardwareId);
  const bool skipped = !m_flags.checkIdentity || SoftwareIdIsNoLabel();
  if (skipped && !m_flags.checkHardware) {
    m_log.LogInfo("FirmwareUpdater: Check Hardware-Id: Skipped");
    return StepResult::Done;
  }
  const auto deviceId = static_cast<unsigned>(m_deviceId);
  std::vector<std::uint16_t> accepted;
  if (AcceptedHardwareIds(accepted) == -1) {
    m_log.LogCrit("FirmwareUpdater: Check HardwareId: Firmware does not match the device (0x%04X)",
                  deviceId);
    return Fail(ErrorCode::HardwareId, "Error: Firmware does not match the device (0x%04X)",
                deviceId);
  }
  if (MatchesHardwareId(hardwareId, accepted)) return StepResult::Done;
  m_log.LogCrit("FirmwareUpdater: Hardware ID incorrect. Device: 0x%.4X", deviceId);
  return Fail(ErrorCode::HardwareId, "Error: Hardware ID incorrect. Device: 0x%.4X", hardwareId);
}

// Their number; -1 when the firmware is not for the device, or they cannot be read.
std::int32_t FirmwareUpdater::AcceptedHardwareIds(std::vector<std::uint16_t>& accepted) const {
  const AdbView view(SelectedFirmware());
  const bool anyEntry = m_flags.checkHardware && m_deviceId == -1 && view.HasEntryTable();
  if (!anyEntry) {
    const auto deviceId = static_cast<std::uint16_t>(m_deviceId);
    return view.HardwareIdList(view.EntryIndexForDevice(deviceId), accepted);
  }
  std::vector<std::uint16_t> list;
  for (std::int32_t entry = 0; entry < view.EntryCount(); ++entry) {
    if (view.HardwareIdList(entry, list) < 1) continue;
    accepted.insert(accepted.end(), list.begin(), list.end());
    // Lists may overlap; without repetitions they are never more than there are ids.
    std::ranges::sort(accepted);
    accepted.erase(std::unique(accepted.begin(), accepted.end()), accepted.end());
  }
  return static_cast<std::int32_t>(accepted.size());
}

// Every accepted id is logged, also after a match: the log then shows which devices the firmware is
// for.
bool FirmwareUpdater::MatchesHardwareId(std::uint16_t hardwareId,
                                        const std::vector<std::uint16_t>& accepted) {
  const auto log = [this](const char* whose, const HardwareIdRecord& id) {
    m_log.LogInfo("CheckHardwareIdList: %s: Serie: %.2X Type: %.2X Module: %.2X Variant: %.2X",
                  whose, id.serie, id.type, id.module, id.variant);
  };
  const HardwareIdRecord device = SplitHardwareId(hardwareId);
  log("Device", device);
  bool matches = false;
  for (const std::uint16_t value : accepted) {
    const HardwareIdRecord entry = SplitHardwareId(value);
    log("HwList", entry);
    matches |= Accepts(entry, device);
  }
  return matches;
}

}  // namespace tavo
