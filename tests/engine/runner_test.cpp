// The runner that walks the plan of steps to one end or another.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "tests/support/engine_rig.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using U = FirmwareUpdater;

// With a device that does what it is asked; its family knows neither tunnel nor label.
class PlainRig : public EngineRig {
 public:
  PlainRig() {
    tavosim::WriteFile(m_updateFile, tavosim::HexText(BuildFirmware(RecipeFor(kFamily))));
    device->On("0x12F 01", kSilence);
    device->On("0x120", Answer({3, 128}));
    device->On("0x121", Answer({0x1E, 0x97, 0x48}));
    device->On("0x132", Answer({16, 0}));
    device->On("0x122", Answer({0x10, 0x84}));
  }
  void Update() {
    const FirmwareUpdater::Run run(engine);
    engine.Start(run, m_updateFile);
    afterLastStep();
  }

  std::function<void()> afterLastStep = [] {};  // before the right to update is given back

 private:
  static constexpr const tavosim::Family& kFamily = tavosim::kFamilies[0];
  const std::string m_updateFile = platform.Folder() + "firmware.hex";
};

TEST(Runner, AFailedStepSendsTheDeviceThroughTheClosingPlanOnce) {
  PlainRig rig;
  rig.device->On("0x130 01", kRefusal);
  rig.device->On("0x12F 01", kSilence, kRefusal);  // at the beginning, then in the closing plan
  rig.Update();
  const Texts& requests = rig.device->requests;
  const Texts expected{"0x130 01", "1B 1B 1B", "0x100 EB 00", "0x12F 01"};
  EXPECT_EQ(Texts(std::find(requests.begin(), requests.end(), expected[0]), requests.end()),
            expected);
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::StartApplication);
  EXPECT_FALSE(rig.engine.Succeeded());
  EXPECT_EQ(rig.Count("\nError: Sending Erase Request\n"), 1u);
  EXPECT_EQ(rig.Count("\nError: Sending: Start Application Request\n"), 1u);
}

TEST(Runner, TheBootloaderIsLeftWithoutATunnelWhenOnlyItTookPart) {
  EngineRig rig;
  rig.engine.SetFlags({.bootloaderOnly = true});
  rig.engine.Start(FirmwareUpdater::Run(rig.engine), rig.platform.Folder() + "missing.hex");
  EXPECT_EQ(rig.device->requests, (Texts{"0x12F 01", "0x100 00"}));  // the closing plan
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::Firmware);
}

// A bootloader that was called and then cannot be asked may have gone on in any way.
TEST(Runner, ARequestThatIsNotSentLeavesTheDeviceUnknown) {
  PlainRig rig;
  rig.device->On("0x120", kRefusal);
  rig.device->On("0x12F 01", kSilence, kRefusal);
  rig.Update();
  EXPECT_EQ(rig.engine.DeviceState().device, DeviceCondition::Unknown);
}

TEST(Runner, OnlyTwoChecksumsThatCameVerifyTheFlash) {
  for (const Bytes& checksums : {Bytes{}, Bytes{1, 2, 3, 4}, Bytes{1, 2, 3, 4, 1, 2, 3, 4}}) {
    PlainRig rig;
    rig.device->On("0x136", Answer(checksums));
    if (checksums.size() == 4) rig.device->On("0x136", Answer({}));
    rig.Update();
    EXPECT_TRUE(rig.engine.Succeeded());
    EXPECT_EQ(rig.engine.DeviceState().device, checksums.size() == 8
                                                   ? DeviceCondition::UpdatedAndVerified
                                                   : DeviceCondition::UpdatedNotVerified);
  }
}

// The stop comes from another thread, while the device works on the erase request.
TEST(Stop, EndsTheUpdateBeforeTheNextStepCall) {
  PlainRig rig;
  rig.access.errorCode = ErrorCode::Verify;  // of an earlier update
  rig.engine.RequestStop();                  // before the update: without effect on it
  rig.device->onRequest = [&](const std::string& request) {
    if (request != "0x130 01") return;
    EXPECT_EQ(rig.device->GetSendMode(), SendMode::Buffer);
    std::thread([&] { rig.engine.RequestStop(); }).join();
    EXPECT_EQ(rig.access.images.size(), 1u);  // the step in hand may still read them
  };
  rig.Update();
  EXPECT_EQ(rig.device->requests.back(), "0x130 01");
  EXPECT_EQ(rig.Count("Erase Application Memory: Ok"), 0u);
  EXPECT_EQ(rig.Count("\nFirmwareupdate Error: 15\n"), 1u);
  EXPECT_FALSE(rig.engine.Succeeded());
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::Verify);
  EXPECT_TRUE(rig.access.images.empty());
  EXPECT_EQ(rig.access.selected, nullptr);
  EXPECT_TRUE(rig.access.plan.empty());
  EXPECT_TRUE(rig.access.closingPlan.empty());
  EXPECT_EQ(rig.device->GetSendMode(), SendMode::Byte);
}

TEST(Stop, WinsOverTheClosingPlan) {
  PlainRig rig;
  rig.device->On("0x136", Answer({1}));  // the checksums differ
  rig.device->onRequest = [&](const std::string& request) {
    if (request == "0x136") rig.engine.RequestStop();
  };
  rig.Update();
  EXPECT_EQ(rig.device->requests.back(), "0x136");
  EXPECT_EQ(rig.Count("\nFirmwareupdate Error: 15\n"), 1u);
}

TEST(Stop, AfterTheLastStepReleasesTheUpdateTooAndWithoutAnUpdateAtOnce) {
  PlainRig rig;
  rig.afterLastStep = [&] { rig.engine.RequestStop(); };
  for (const bool updates : {true, false}) {
    if (updates) {
      rig.Update();
      EXPECT_TRUE(rig.engine.Succeeded());
    } else {
      rig.Load(ImageWithAdb(2, 0x8410));
      rig.access.processorId = 0x1E9748;
      rig.device->SetSendMode(SendMode::Buffer);
      { const FirmwareUpdater::Run run(rig.engine); }  // forgets the last stop
      for (int twice = 0; twice < 2; ++twice) rig.engine.RequestStop();
    }
    EXPECT_TRUE(rig.access.images.empty());
    EXPECT_EQ(rig.access.selected, nullptr);
    EXPECT_EQ(rig.access.processorId, -1);
    EXPECT_EQ(rig.device->GetSendMode(), SendMode::Byte);
    EXPECT_EQ(rig.Count("INFO FirmwareUpdater: Stopped.\n"), updates ? 1u : 2u);
  }
}

TEST(Engine, ProgressAndCodeOutliveTheUpdateAndOnlyProgressBeginsAnew) {
  PlainRig rig;
  EXPECT_EQ(rig.engine.Progress(), -1.0F);
  rig.device->On("0x12F", Answer({}), kRefusal, Answer({}));  // start after writing fails
  rig.Update();
  EXPECT_GE(rig.engine.Progress(), 1.0F);

  rig.device->onRequest = [&](const std::string& request) {
    EXPECT_TRUE(request != "0x12F 01" || rig.engine.Progress() == 0.0F);
  };
  rig.Update();
  EXPECT_TRUE(rig.engine.Succeeded());
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::StartApplication);
}

TEST(Engine, TheHolderGivesADeviceTimeToSettle) {
  VirtualPlatform platform;
  Logger log(platform);
  TavoLink link;
  for (const bool used : {false, true}) {
    TransportHolder holder(platform, [&](TransportKind) {
      return std::make_unique<ScriptedTransport>(link, platform, log);
    });
    if (used) holder.SelectTransport(TransportKind::Usb);
  }
  EXPECT_EQ(platform.Sleeps(), std::vector{100ms});
}

// The label and the hardware check of the next device must not go by what the last one reported.
TEST(Engine, AnUpdateBeginsWithoutAnyFactOfTheLastOne) {
  PlainRig rig;
  rig.device->On("0x100 BB 0A", Answer({0x03, 0x01}));
  rig.device->On("0x100 BB 02", Answer({0x00, 0xEE}));
  rig.device->On("0x136", Answer(Bytes(8, 1)));
  rig.Update();
  EXPECT_EQ(rig.engine.Facts().deviceId, 0x0103);
  EXPECT_EQ(rig.engine.Facts().hardwareId, 0x8410);
  rig.access.retryCount = 6;
  rig.access.activeTunnel = 0x0401;
  rig.device->SetSendMode(SendMode::Buffer);

  std::size_t request = 0;
  rig.device->onRequest = [&](const std::string&) {
    if (request++ > 0) return;
    const DeviceFacts facts = rig.engine.Facts();
    for (const std::int64_t fact : std::initializer_list<std::int64_t>{
             facts.deviceId, facts.softwareId, facts.bootloaderVersion, facts.blockSize,
             facts.processorId, facts.hardwareId, facts.applicationKiB, facts.checksum,
             facts.expectedChecksum}) {
      EXPECT_EQ(fact, -1);
    }
    EXPECT_EQ(rig.access.retryCount, 0);
    EXPECT_EQ(rig.access.activeTunnel, 0);
    EXPECT_EQ(rig.device->GetSendMode(), SendMode::Byte);
  };
  rig.Update();
  EXPECT_GT(request, 0u);
}

}  // namespace
}  // namespace tavo::test
