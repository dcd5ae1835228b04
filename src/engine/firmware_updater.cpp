#include "engine/firmware_updater.h"

namespace tavo {

FirmwareUpdater::FirmwareUpdater(Platform& platform, Logger& log, TransportHolder& holder)
    : m_platform(platform), m_log(log), m_holder(holder), m_status(platform, *this) {}

FirmwareUpdater::Run::Run(FirmwareUpdater& engine) : m_engine(engine) {
  const std::lock_guard lock(engine.m_runLock);
  m_granted = !engine.m_updateRuns;
  if (!m_granted) return;
  engine.m_updateRuns = true;
  engine.m_stopRequested = false;  // a request made before is not for this update
}

FirmwareUpdater::Run::~Run() {
  if (!m_granted) return;
  const std::lock_guard lock(m_engine.m_runLock);
  // A stop requested after the update's last check has left its work to us.
  if (m_engine.m_stopRequested) m_engine.ReleaseStoppedUpdate();
  m_engine.m_updateRuns = false;
}

DeviceFacts FirmwareUpdater::Facts() const {
  return {.deviceId = m_deviceId,
          .softwareId = m_softwareId,
          .bootloaderVersion = m_bootloaderVersion,
          .blockSize = m_blockSize == 0 ? -1 : static_cast<std::int32_t>(m_blockSize),
          .processorId = m_processorId,
          .hardwareId = m_hardwareId,
          .applicationKiB = m_applicationKiB,
          .checksum = m_checksum,
          .expectedChecksum = m_expectedChecksum};
}

void FirmwareUpdater::RequestStop() {
  const std::lock_guard lock(m_runLock);
  if (m_stopRequested) return;
  // The line comes first, so that it precedes the last line of the update that it ends.
  m_log.LogInfo("FirmwareUpdater: Stopped.");
  m_stopRequested = true;
  if (!m_updateRuns) ReleaseStoppedUpdate();
}

void FirmwareUpdater::ReleaseStoppedUpdate() {
  SetSendMode(SendMode::Byte, "FirmwareUpdater: SendMode: BYTE aktivated.");
  m_selectedFirmware = nullptr;
  m_firmwareImages.clear();
  m_processorId = -1;
}

float FirmwareUpdater::Progress() const {
  const std::uint32_t total = m_bytesTotal;
  if (total == 0) return -1.0F;
  return static_cast<float>(m_bytesDone) / static_cast<float>(total);
}

std::optional<std::string> FirmwareUpdater::ResettedModule(std::uint32_t index) const {
  const std::lock_guard lock(m_modulesLock);
  if (index >= m_resettedModules.size()) return std::nullopt;
  return m_resettedModules[index];
}

}  // namespace tavo
