// The plan of steps, what changes it, and the runner that walks it to one end or another.
#include <gtest/gtest.h>

#include <algorithm>
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
    engine.Start(FirmwareUpdater::Run(engine), m_updateFile);
  }

 private:
  static constexpr const tavosim::Family& kFamily = tavosim::kFamilies[0];
  const std::string m_updateFile = platform.Folder() + "firmware.hex";
};

void ExpectSteps(const std::deque<Step>& plan, const std::vector<StepFunction>& expected) {
  ASSERT_EQ(plan.size(), expected.size());
  for (std::size_t i = 0; i < plan.size(); ++i) {
    EXPECT_TRUE(plan[i].run == expected[i]) << "step " << i << ": " << plan[i].logName;
  }
}

TEST(Plan, HoldsTheStepsThatTheFlagsAskFor) {
  using Steps = std::vector<StepFunction>;
  // clang-format off
  const Steps all{
      &U::CheckFirmware, &U::LeaveBootloader, &U::TunnelStatus, &U::RequestDeviceId, &U::RequestDeviceIdAdmin,
      &U::PlanTunnel, &U::RequestSoftwareId, &U::CallBootloader, &U::CheckVersion, &U::RequestProcessorId,
      &U::SelectFirmware, &U::CheckApplicationSize, &U::CheckHardwareId, &U::EraseApplication, &U::WriteBlock,
      &U::Verify, &U::StartApplication, &U::WaitForApplication, &U::SetLabel, &U::WaitForApplication,
      &U::RequestResettedModules};
  // clang-format on
  Steps withoutIdentity = all;
  for (const int index : {12, 4, 3}) withoutIdentity.erase(withoutIdentity.begin() + index);
  const Steps bootloaderOnly{
      &U::CheckFirmware,  &U::CallBootloader,       &U::CheckVersion,      &U::RequestProcessorId,
      &U::SelectFirmware, &U::CheckApplicationSize, &U::EraseApplication,  &U::WriteBlock,
      &U::Verify,         &U::StartApplication,     &U::WaitForApplication};
  const Steps closing{&U::TunnelStatus, &U::LeaveBootloader, &U::WaitForApplicationTolerant};
  const Steps shortClosing{&U::LeaveBootloader, &U::WaitForApplicationTolerant};
  struct Case {
    UpdateFlags flags;
    Steps plan, closing;
  };
  EngineBench bench;
  for (const Case& row :
       {Case{{true, false, false}, all, closing}, Case{{true, true, false}, all, closing},
        Case{{false, false, false}, withoutIdentity, closing},
        Case{{true, false, true}, bootloaderOnly, shortClosing},
        Case{{false, true, true}, bootloaderOnly, shortClosing}}) {
    bench.engine.SetFlags(row.flags);
    bench.engine.BuildPlan();
    ExpectSteps(bench.engine.Plan(), row.plan);
    ExpectSteps(bench.engine.ClosingPlan(), row.closing);
  }
}

// EraseApplication stands for the rest of the plan.
TEST(Plan, TunnelStepsArePutInAsTheReportAndTheRouteAsk) {
  const Texts status{"1B 1B 1B", "0x100 EB 00"};
  const Texts deinit{"1B 1B 1B", "0x100 EC 00"};
  const Texts rest{"0x130 01"};
  const auto init = [](const char* slave) { return Texts{std::string("0x100 ED 00 ") + slave}; };
  using Pauses = std::vector<std::chrono::milliseconds>;
  struct Case {
    const char* name;
    std::uint16_t hardwareId;
    Reply report;
    std::vector<Texts> requests;
    Pauses pauses;
  };
  // clang-format off
  const Case cases[] = {
    {"none open, none needed", 0x8410, Answer({0, 0}), {status, rest}, {}},
    {"no report, {4,1}", 0x8150, kSilence, {status, init("01 04"), rest, deinit}, {6s, 5s}},
    {"none open, {4,1}", 0x8150, Answer({0, 0}), {status, init("01 04"), rest, deinit}, {6s, 5s}},
    {"none, as 16 16", 0x82E0, Answer({16, 16}), {status, init("00 04"), rest, deinit}, {1s, 5s}},
    {"{4,2} open, {4,1}", 0x8150, Answer({2, 4}), {status, deinit, init("01 04"), rest, deinit}, {5s, 1s, 5s}},
    {"{4,1} open, {4,1}", 0x8150, Answer({1, 4}), {status, deinit, rest, deinit}, {5s, 5s}},
    {"{4,2} open, none needed", 0x8410, Answer({2, 4}), {status, deinit, rest}, {5s}},
  };
  // clang-format on
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    EngineBench bench;
    bench.Load(ImageWithAdb(2, row.hardwareId));
    bench.device->On("0x100 EB", row.report);
    bench.Run({&U::TunnelStatus, &U::PlanTunnel, &U::EraseApplication});
    Texts expected;
    for (const Texts& part : row.requests) {
      expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(bench.device->requests, expected);
    EXPECT_EQ(bench.platform.Sleeps(), row.pauses);
    EXPECT_EQ(bench.Count("Closing Tunnel\n"), bench.Count("Deinit Tunnel: Ok.\n"));
    EXPECT_TRUE(bench.engine.Succeeded());
  }
}

TEST(Runner, StepsThatAreDoneAtOnceHandOverInOneCall) {
  EngineBench bench;
  bench.Load(ImageWithAdb(2, 0x8410));
  bench.access.plan = {{&U::CheckFirmware, ""}, {&U::SelectFirmware, ""}, {&U::SetLabel, ""}};
  bench.engine.RunSteps(StepPhase::Start);
  EXPECT_TRUE(bench.engine.Plan().empty());
  EXPECT_TRUE(bench.engine.Succeeded());
  EXPECT_TRUE(bench.platform.Console().ends_with("\nFirmwareupdate successfull\n"));
}

TEST(Runner, AFailedStepSendsTheDeviceThroughTheClosingPlanOnce) {
  struct Case {
    const char* request;
    Reply reply;
    Reply leaveReply;  // to the request of the closing plan that brings the application back
    Texts requests;    // from the failing one on
    ErrorCode code;
    Texts shown;
  };
  // clang-format off
  const Case cases[] = {
    {"0x130 01", kRefusal, kSilence, {"1B 1B 1B", "0x100 EB 00", "0x12F 01", "0x100 00"},
     ErrorCode::Erase, {"Error: Sending Erase Request"}},
    {"0x130 01", kRefusal, kRefusal, {"1B 1B 1B", "0x100 EB 00", "0x12F 01"},
     ErrorCode::StartApplication, {"Error: Sending Erase Request", "Error: Sending: Start Application Request"}},
    {"0x132", Answer({1, 0}), Answer({}), {"1B 1B 1B", "0x100 EB 00", "0x12F 01", "0x100 00"},
     ErrorCode::ApplicationSize, {"Firmwareupdate Error: 13"}},
  };
  // clang-format on
  for (const Case& row : cases) {
    PlainBench bench;
    bench.device->On(row.request, row.reply);
    bench.device->On("0x12F 01", kSilence, row.leaveReply);
    bench.Update();
    const Texts& requests = bench.device->requests;
    const auto failed = std::find(requests.begin(), requests.end(), row.request);
    EXPECT_EQ(Texts(std::next(failed), requests.end()), row.requests);
    EXPECT_EQ(bench.engine.LastError(), row.code);
    EXPECT_FALSE(bench.engine.Succeeded());
    for (const std::string& text : row.shown) EXPECT_EQ(bench.Count("\n" + text + "\n"), 1u);
    EXPECT_EQ(bench.Count("successfull"), 0u);
  }
}

TEST(Runner, AnUpdateWithoutImagesFailsBeforeTheDeviceIsTouched) {
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
  EXPECT_EQ(bench.Count("Erase Application Memory: Ok"), 0u);
  EXPECT_EQ(bench.Count("\nFirmwareupdate Error: 15\n"), 1u);
  EXPECT_FALSE(bench.engine.Succeeded());
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::Verify);
  EXPECT_TRUE(bench.access.images.empty());
  EXPECT_EQ(bench.access.selected, nullptr);
  EXPECT_TRUE(bench.engine.Plan().empty());
  EXPECT_TRUE(bench.engine.ClosingPlan().empty());
  EXPECT_EQ(bench.device->GetSendMode(), SendMode::Byte);
}

TEST(Stop, WinsOverTheClosingPlan) {
  PlainBench bench;
  bench.device->On("0x136", Answer({1}));  // the checksums differ
  bench.device->onRequest = [&](const std::string& request) {
    if (request == "0x136") std::thread([&] { bench.engine.RequestStop(); }).join();
  };
  bench.Update();
  EXPECT_EQ(bench.device->requests.back(), "0x136");
  EXPECT_EQ(bench.Count("\nFirmwareupdate Error: 15\n"), 1u);
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
  EXPECT_EQ(bench.Count("Error"), 0u);
}

TEST(Engine, LastErrorAndProgressOutliveTheUpdate) {
  PlainBench bench;
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::None);
  EXPECT_EQ(bench.engine.Progress(), -1.0F);
  bench.device->On("0x12F", Answer({}), kRefusal, Answer({}));  // start after writing fails
  bench.Update();
  EXPECT_FALSE(bench.engine.Succeeded());
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::StartApplication);
  EXPECT_GE(bench.engine.Progress(), 1.0F);

  bench.device->onRequest = [&](const std::string& request) {
    if (request == "0x12F 01") {
      EXPECT_EQ(bench.engine.Progress(), 0.0F);
    }
  };
  bench.Update();
  EXPECT_TRUE(bench.engine.Succeeded());
  EXPECT_EQ(bench.Count("\nFirmwareupdate successfull\n"), 1u);
  EXPECT_EQ(bench.engine.LastError(), ErrorCode::StartApplication);
}

TEST(Engine, OnlyOneUpdateIsGrantedAtATime) {
  EngineBench bench;
  const FirmwareUpdater::Run run(bench.engine);
  EXPECT_TRUE(run.Granted());
  std::thread([&] { EXPECT_FALSE(FirmwareUpdater::Run(bench.engine).Granted()); }).join();
}

}  // namespace
}  // namespace tavo::test
