// The runner that walks the plan of steps to one end or another.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "tests/support/engine_access.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using U = FirmwareUpdater;

// With a device that does what it is asked; its family knows neither tunnel nor label.
class PlainBench : public EngineBench {
 public:
  PlainBench() {
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
  PlainBench bench;
  bench.device->On("0x130 01", kRefusal);
  bench.device->On("0x12F 01", kSilence, kRefusal);  // at the beginning, then in the closing plan
  bench.Update();
  const Texts& requests = bench.device->requests;
  const Texts expected{"0x130 01", "1B 1B 1B", "0x100 EB 00", "0x12F 01"};
  EXPECT_EQ(Texts(std::find(requests.begin(), requests.end(), expected[0]), requests.end()),
            expected);
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::StartApplication);
  EXPECT_FALSE(bench.engine.Succeeded());
  EXPECT_EQ(bench.Count("\nError: Sending Erase Request\n"), 1u);
  EXPECT_EQ(bench.Count("\nError: Sending: Start Application Request\n"), 1u);
}

TEST(Runner, TheBootloaderIsLeftWithoutATunnelWhenOnlyItTookPart) {
  EngineBench bench;
  bench.engine.SetFlags({.bootloaderOnly = true});
  bench.engine.Start(FirmwareUpdater::Run(bench.engine), bench.platform.Folder() + "missing.hex");
  EXPECT_EQ(bench.device->requests, (Texts{"0x12F 01", "0x100 00"}));  // the closing plan
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::Firmware);
}

// The stop comes from another thread, while the device works on the erase request.
TEST(Stop, EndsTheUpdateBeforeTheNextStepCall) {
  PlainBench bench;
  bench.access.errorCode = ErrorCode::Verify;  // of an earlier update
  bench.engine.RequestStop();                  // before the update: without effect on it
  bench.device->onRequest = [&](const std::string& request) {
    if (request != "0x130 01") return;
    EXPECT_EQ(bench.device->GetSendMode(), SendMode::Buffer);
    std::thread([&] { bench.engine.RequestStop(); }).join();
    EXPECT_EQ(bench.access.images.size(), 1u);  // the step in hand may still read them
  };
  bench.Update();
  EXPECT_EQ(bench.device->requests.back(), "0x130 01");
  EXPECT_EQ(bench.Count("\nFirmwareupdate Error: 15\n"), 1u);
  EXPECT_FALSE(bench.engine.Succeeded());
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::Verify);
  EXPECT_TRUE(bench.access.images.empty());
  EXPECT_EQ(bench.access.selected, nullptr);
  EXPECT_TRUE(bench.access.plan.empty());
  EXPECT_TRUE(bench.access.closingPlan.empty());
  EXPECT_EQ(bench.device->GetSendMode(), SendMode::Byte);
}

TEST(Stop, WinsOverTheClosingPlan) {
  PlainBench bench;
  bench.device->On("0x136", Answer({1}));  // the checksums differ
  bench.device->onRequest = [&](const std::string& request) {
    if (request == "0x136") bench.engine.RequestStop();
  };
  bench.Update();
  EXPECT_EQ(bench.device->requests.back(), "0x136");
  EXPECT_EQ(bench.Count("\nFirmwareupdate Error: 15\n"), 1u);
}

TEST(Stop, AfterTheLastStepReleasesTheUpdateToo) {
  PlainBench bench;
  bench.afterLastStep = [&] { bench.engine.RequestStop(); };
  bench.Update();
  EXPECT_TRUE(bench.engine.Succeeded());
  EXPECT_TRUE(bench.access.images.empty());
  EXPECT_EQ(bench.access.selected, nullptr);
}

TEST(Stop, WithoutAnUpdateReleasesTheLastOneAtOnce) {
  EngineBench bench;
  bench.Load(ImageWithAdb(2, 0x8410));
  bench.access.processorId = 0x1E9748;
  bench.device->SetSendMode(SendMode::Buffer);
  bench.engine.RequestStop();
  bench.engine.RequestStop();
  EXPECT_TRUE(bench.access.images.empty());
  EXPECT_EQ(bench.access.selected, nullptr);
  EXPECT_EQ(bench.access.processorId, -1);
  EXPECT_EQ(bench.device->GetSendMode(), SendMode::Byte);
  EXPECT_EQ(bench.Count("INFO FirmwareUpdater: Stopped.\n"), 1u);
}

TEST(Engine, ProgressAndCodeOutliveTheUpdateAndOnlyProgressBeginsAnew) {
  PlainBench bench;
  EXPECT_EQ(bench.engine.Progress(), -1.0F);
  bench.device->On("0x12F", Answer({}), kRefusal, Answer({}));  // start after writing fails
  bench.Update();
  EXPECT_GE(bench.engine.Progress(), 1.0F);

  bench.device->onRequest = [&](const std::string& request) {
    EXPECT_TRUE(request != "0x12F 01" || bench.engine.Progress() == 0.0F);
  };
  bench.Update();
  EXPECT_TRUE(bench.engine.Succeeded());
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::StartApplication);
}

}  // namespace
}  // namespace tavo::test
