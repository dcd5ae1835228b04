// An engine on a virtual clock over a scripted device, with access to the engine's fields.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/firmware_updater.h"
#include "simulator/firmware_builder.h"
#include "tests/support/scripted_transport.h"

namespace tavo {

// The engine's friend: names of its fields, nothing else.
class EngineAccess {
 public:
  explicit EngineAccess(FirmwareUpdater& engine) : m_engine(engine) {
    engine.m_statusHandler = &engine.m_status;
  }

  void Await() { m_engine.PollUntilDone(); }
  void BeginPositioning(std::uint32_t offset) {
    m_engine.m_writeState = FirmwareUpdater::WriteState::Positioning;
    m_engine.m_writeOffset = offset;
  }

 private:
  FirmwareUpdater& m_engine;

 public:
  std::deque<Step>& plan = m_engine.m_plan;
  const std::deque<Step>& closingPlan = m_engine.m_closingPlan;
  std::vector<FirmwareImage>& images = m_engine.m_firmwareImages;
  const FirmwareImage*& selected = m_engine.m_selectedFirmware;
  TavoMessage& answer = m_engine.m_rxMessage;
  std::uint16_t& activeTunnel = m_engine.m_activeTunnel;
  std::int32_t& retryCount = m_engine.m_retryCount;
  std::int32_t& bootloaderVersion = m_engine.m_bootloaderVersion;
  std::int32_t& deviceId = m_engine.m_deviceId;
  std::int32_t& softwareId = m_engine.m_softwareId;
  std::int32_t& processorId = m_engine.m_processorId;
  std::uint32_t& blockSize = m_engine.m_blockSize;
  std::atomic<ErrorCode>& errorCode = m_engine.m_errorCode;
  const std::string& errorText = m_engine.m_errorText;
};

}  // namespace tavo

namespace tavo::test {

using StepFunction = decltype(Step::run);

// Small firmware that describes itself; `entries` for types 5 and 7, `hardwareId` for the others.
inline FirmwareImage ImageWithAdb(std::uint8_t adbType, std::uint16_t hardwareId,
                                  std::vector<tavosim::FirmwareEntry> entries = {},
                                  std::uint16_t mcuId = 0) {
  tavosim::FirmwareRecipe recipe;
  recipe.startAddress = 0x4000;
  recipe.size = 256;
  recipe.adbType = adbType;
  recipe.mcuId = mcuId;
  recipe.hardwareId = hardwareId;
  recipe.entries = std::move(entries);
  tavosim::Firmware firmware = tavosim::BuildFirmware(recipe);
  return {std::move(firmware.data), firmware.startAddress};
}

class EngineRig {
 public:
  VirtualPlatform platform;
  Logger log{platform};
  TavoLink link;
  TransportHolder holder{platform, [this](TransportKind) {
                           return std::make_unique<ScriptedTransport>(link, platform, log);
                         }};
  FirmwareUpdater engine{platform, log, holder};
  EngineAccess access{engine};
  ScriptedTransport* device = nullptr;  // owned by the holder; null when none is held

  explicit EngineRig(bool holdsTransport = true) {
    if (!holdsTransport) return;
    holder.SelectTransport(TransportKind::Usb);
    device = static_cast<ScriptedTransport*>(holder.Transport());
  }

  void Load(FirmwareImage image) {
    access.images = {std::move(image)};
    access.selected = &access.images.front();
  }

  void Receive(const Bytes& payload) {
    std::copy(payload.begin(), payload.end(), access.answer.payload.begin());
  }

  // These steps and nothing else, to their end.
  void Run(const std::vector<StepFunction>& steps) {
    for (const StepFunction step : steps) access.plan.push_back({step, ""});
    engine.RunSteps(StepPhase::Start);
    access.Await();
  }

  StepResult Call(StepFunction step, StepPhase phase) { return (engine.*step)(phase); }

  // Console and log lines in one.
  std::size_t Count(const std::string& text) const {
    std::size_t count = 0;
    const std::string& console = platform.Console();
    for (auto at = console.find(text); at != std::string::npos; at = console.find(text, at + 1)) {
      ++count;
    }
    return count;
  }
};

}  // namespace tavo::test
