#include "engine/firmware_updater.h"

namespace tavo {

FirmwareUpdater::FirmwareUpdater(Platform& platform, Logger& log, TransportHolder& holder)
    : m_platform(platform), m_log(log), m_holder(holder), m_status(platform, *this) {}

FirmwareUpdater::Run::Run(FirmwareUpdater& engine)
    : m_engine(engine), m_lock(engine.m_running, std::try_to_lock) {}

FirmwareUpdater::Run::~Run() {
  if (!Granted()) return;
  m_lock.unlock();
  // A stop request that came after the update's last look at it found the lock held and left the
  // rest to us.
  m_engine.ReleaseIfStopped();
}

void FirmwareUpdater::SetFlags(const UpdateFlags& flags) {
  m_checkIdentity = flags.checkIdentity;
  m_extendedErase = flags.extendedErase;
  m_bootloaderOnly = flags.bootloaderOnly;
}

void FirmwareUpdater::RequestStop() {
  if (m_stopRequested) return;
  m_log.LogInfo("FirmwareUpdater: Stopped.");
  m_stopRequested = true;
  ReleaseIfStopped();
}

void FirmwareUpdater::ReleaseIfStopped() {
  const std::unique_lock run(m_running, std::try_to_lock);
  if (run && m_stopRequested) ReleaseStoppedUpdate();
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
