// The two steps that judge the update file: is every image sound, and which one is for this device?
#include "engine/firmware_updater.h"
#include "package/adb_view.h"
#include "package/hardware_identity.h"

namespace tavo {

StepResult FirmwareUpdater::CheckFirmware(StepPhase /*phase*/) {
  if (m_firmwareImages.empty()) {
    return RejectFirmware("FirmwareUpdater: Check Firmware: No firmware in the update file");
  }
  for (const FirmwareImage& image : m_firmwareImages) {
    if (AdbView(image).AdbType() == 0) {
      return RejectFirmware("FirmwareUpdater: Check Firmware: Invalid");
    }
  }
  return StepResult::Done;
}

// An image that names the device's processor wins wherever it stands in the list; one that names
// none is taken only when it is the only one of its kind.
StepResult FirmwareUpdater::SelectFirmware(StepPhase /*phase*/) {
  m_selectedFirmware = nullptr;
  std::vector<const FirmwareImage*> candidates;
  for (const FirmwareImage& image : m_firmwareImages) {
    const std::optional<std::int32_t> mcuId = AdbView(image).McuId();
    if (!mcuId) {
      m_log.LogDebug("FirmwareUpdater: Select Firmware: ADB without MCU-ID");
      candidates.push_back(&image);
      continue;
    }
    const std::optional<std::uint32_t> processorId = FindProcessorId(*mcuId);
    if (!processorId) {
      m_log.LogWarn("FirmwareUpdater: Select Firmware: Unknown MCU-ID");
    } else if (*processorId == static_cast<std::uint32_t>(m_processorId)) {
      m_log.LogDebug("FirmwareUpdater: Select Firmware: Firmware found");
      m_selectedFirmware = &image;
      return StepResult::Done;
    }
  }
  if (candidates.size() != 1) {
    return RejectFirmware("FirmwareUpdater: Select Firmware: No matching firmware found");
  }
  m_selectedFirmware = candidates.front();
  return StepResult::Done;
}

StepResult FirmwareUpdater::RejectFirmware(const char* text) {
  m_log.LogCrit("%s", text);
  return Fail(ErrorCode::Firmware, "%s", text);
}

}  // namespace tavo
