// Requests of the steps and their reactions to answers, where a whole update does not show them, and
// how long they continue without an answer.
#include <gtest/gtest.h>

#include "tests/support/engine_rig.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using U = FirmwareUpdater;
using enum StepResult;

Bytes LowHigh(std::uint16_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
}

struct Dialogue {
  std::vector<StepFunction> steps;
  std::function<void(EngineRig&)> prepare;
  Texts requests;
  Texts lines;  // each of them once
};

void Expect(const Dialogue& row) {
  SCOPED_TRACE(testing::PrintToString(row.requests));
  EngineRig rig;
  rig.Load(ImageWithAdb(2, 0x8410));
  row.prepare(rig);
  rig.Run(row.steps);
  EXPECT_TRUE(rig.engine.Succeeded());
  EXPECT_EQ(rig.device->requests, row.requests);
  for (const std::string& line : row.lines) EXPECT_EQ(rig.Count(line + "\n"), 1u) << line;
}

// clang-format off
TEST(Steps, UnderstandAlsoTheRareAnswers) {
  using B = EngineRig;
  const Dialogue dialogues[] = {
    {{&U::LeaveBootloader}, [](B&) {}, {"0x12F 01"}, {"Start Application: Bootloader was active"}},
    {{&U::CheckHardwareId},  // asked for, but not compared
     [](B& b) { b.access.softwareId = 0xEE00; b.device->On("0x122", Answer({0x99, 0x99})); },
     {"0x122"}, {"Check Hardware-Id: Skipped"}},
    {{&U::RequestDeviceId, &U::RequestDeviceIdAdmin},
     [](B& b) { b.device->On("0x100", kSilence); b.device->On("0x802", Answer({0x34, 0x12})); },
     {"0x100 BB 0A", "0x100 BB 0A", "0x100 BB 0A", "0x100 BB 0A", "0x802"},
     {"Device-ID (Admin) received: 0x1234"}},
    {{&U::RequestProcessorId}, [](B& b) { b.device->On("0x121", Answer({0x9E, 0x97, 0x48})); },
     {"0x121"}, {"Prozessor-ID received: 0x9E9748"}},
    {{&U::CallBootloader}, [](B& b) { b.Load({Bytes(64, 0), 0x4000}); }, {"0x100 FD 00"}, {}},
  };
  for (const Dialogue& row : dialogues) Expect(row);
}

TEST(Steps, TheLabelIsTheFirstEntryForTheDevice) {
  const auto device = [](std::uint8_t adbType, std::int32_t deviceId, std::int32_t softwareId) {
    return [=](EngineRig& rig) {
      rig.Load(ImageWithAdb(adbType, 0x8410, {{0x101, {}}, {0x102, {}}, {0x103, {}}, {0x102, {}}}));
      rig.access.deviceId = deviceId;
      rig.access.softwareId = softwareId;
    };
  };
  Expect({{&U::SetLabel}, device(5, 0x103, -1), {"0x100 A0 02"}, {"Set Label: Request (Label 2)", "Set Label: Ok"}});
  Expect({{&U::SetLabel}, device(5, 0x102, 0xEE01), {"0x100 A0 01"}, {}});
  Expect({{&U::SetLabel}, device(5, 0x102, 0xEE00), {}, {"Set Label: Skipped"}});
  Expect({{&U::SetLabel}, device(5, -1, -1), {}, {"Set Label: Skipped"}});
  Expect({{&U::SetLabel}, device(2, 0x102, -1), {}, {}});
}

TEST(Steps, TheDeviceMayReportHardwareIdWildcardsTheFirmwareMayNot) {
  using Ids = std::vector<std::uint16_t>;
  struct Case {
    std::uint16_t device;
    Ids accepted;  // of the device's entry; the other entry accepts 0x8410
    bool fits;
    std::int32_t deviceId = 0x0102;  // -1: the hardware check is asked for by itself
  };
  for (const Case& row : {
           Case{0x82E0, {0x82E0}, true}, {0x82E5, {0x82E0}, false}, {0x82EF, {0x82E0}, true},
           {0xF2E0, {0x82E0}, true},     {0x8FE0, {0x82E0}, true},  {0x82F0, {0x82E0}, true},
           {0xFFFF, {0x1234}, true},     {0x82E0, {0x82EF}, false}, {0x82EF, {0x82EF}, true},
           {0x82E0, {0x1111, 0x82E0, 0x2222}, true}, {0x82E0, {0x82E1, 0x92E0}, false}, {0x82E0, {}, false},
           {0x82E0, {0x82D0, 0x81E0}, false}, {0x8410, {0x8420}, false},
           {0x8410, {0x8420}, true, -1}, {0x8420, {0x8420}, true, -1}, {0x8430, {0x8420}, false, -1}}) {
    EngineRig rig;
    rig.Load(ImageWithAdb(7, 0, {{0x0101, {0x8410}}, {0x0102, row.accepted}}));
    rig.engine.SetFlags({.checkIdentity = row.deviceId != -1, .checkHardware = true});
    rig.access.deviceId = row.deviceId;
    rig.Receive(LowHigh(row.device));
    EXPECT_EQ(rig.Call(&U::CheckHardwareId, StepPhase::Answer), row.fits ? Done : Failed) << row.device;
    const std::size_t others = row.deviceId == -1 ? 1 : 0;
    EXPECT_EQ(rig.Count("INFO CheckHardwareIdList: HwList: "), row.accepted.size() + others);
  }
}
// clang-format on

std::string Positioning(std::size_t address) {
  return ScriptedTransport::Text(
      0x133, Bytes{static_cast<std::uint8_t>(address), static_cast<std::uint8_t>(address >> 8),
                   static_cast<std::uint8_t>(address >> 16), 0});
}

TEST(Writing, SendsTheBlocksInOrderAndLeavesOutBlankOnesAfterTheFirst) {
  constexpr std::size_t kBlock = 64;
  struct Case {
    std::string blocks;                // a letter for the bytes of each; '_' is a blank one
    std::vector<std::size_t> written;  // block numbers, in order
    std::uint32_t total;               // bytes
    std::size_t missing = 0;           // bytes at the end of the last block
  };
  for (const Case& row : {Case{"ABC", {0, 1, 2}, 192},
                          {"A__D", {0, 1, 3}, 128},
                          {"_B", {0, 1}, 64},
                          {"__C", {0, 2}, 64},
                          {"A_C_", {0, 1, 2, 3}, 128},
                          {"___", {0}, 0},
                          {"AB", {0, 1}, 64, 28}}) {
    SCOPED_TRACE(row.blocks);
    Bytes flash;  // as it is afterwards
    for (const char block : row.blocks) {
      flash.insert(flash.end(), kBlock, static_cast<std::uint8_t>(block == '_' ? 0xFF : block));
    }
    const std::size_t size = flash.size() - row.missing;
    std::fill(flash.end() - static_cast<std::ptrdiff_t>(row.missing), flash.end(), 0xFF);
    EngineRig rig;
    rig.Load(
        {Bytes(flash.begin(), flash.end() - static_cast<std::ptrdiff_t>(row.missing)), 0x4000});
    rig.access.blockSize = kBlock;
    rig.Run({&U::WriteBlock});
    EXPECT_TRUE(rig.engine.Succeeded());
    Texts expected;
    for (const std::size_t block : row.written) {
      expected.push_back(Positioning(0x4000 + block * kBlock));
      expected.push_back(
          ScriptedTransport::Text(0x134, std::span(flash).subspan(block * kBlock, kBlock)));
    }
    expected.push_back(Positioning(0x4000 + size));
    EXPECT_EQ(rig.device->requests, expected);
    const auto done = static_cast<float>(row.written.size() * kBlock);
    EXPECT_EQ(rig.engine.Progress(), row.total == 0 ? -1 : done / static_cast<float>(row.total));
  }
}

TEST(Writing, AsksAgainForWhatWasLostAndForgetsTheCountAfterAnAnswer) {
  EngineRig rig;
  rig.Load({Bytes(4, 'A'), 0x4000});
  rig.access.blockSize = 4;
  rig.device->On("0x133", kSilence, kSilence, Answer({}));
  rig.device->On("0x134", kSilence, kSilence, kSilence, kSilence, kSilence, kSilence, Answer({}));
  rig.Run({&U::WriteBlock});
  EXPECT_TRUE(rig.engine.Succeeded());
  EXPECT_EQ(rig.device->requests.size(), 3u + 7u + 1u);
  EXPECT_EQ(rig.access.retryCount, 0);
}

TEST(Tunnel, AStatusAnswerWithoutContentProvesNothing) {
  for (const Bytes& answer : {Bytes{}, Bytes{0}, Bytes{0, 0}}) {
    EngineRig rig;
    rig.Load(ImageWithAdb(2, 0x8150));
    rig.device->On("0x100 EB 00", Answer(answer));
    rig.Run({&U::InitTunnel, &U::TunnelStatus});
    EXPECT_EQ(rig.engine.DeviceState().tunnel,
              answer.size() == 2 ? TunnelCondition::Closed : TunnelCondition::LeftOpen);
  }
}

TEST(Modules, OfTheLastUpdateAreForgottenAndMayBeNone) {
  EngineRig rig;
  rig.device->On("0x814", Answer(LowHigh(0x0443)), Answer(LowHigh(0x633A)), Answer({0, 0}));
  rig.Run({&U::RequestResettedModules});
  EXPECT_EQ(rig.engine.ResettedModule(0), "ABC");
  EXPECT_EQ(rig.engine.ResettedModule(1), "XYZ");
  EXPECT_EQ(rig.engine.ResettedModule(2), std::nullopt);
  EXPECT_TRUE(rig.platform.ConsoleHas("Resetted Modules ABC, XYZ\n"));
  EXPECT_EQ(rig.Count("\nFirmwareupdate Error: 0\n"), 1u);

  rig.device->On("0x814", kSilence, Answer({0, 0}));
  rig.Run({&U::RequestResettedModules});
  EXPECT_TRUE(rig.engine.Succeeded());
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::Timeout);
  EXPECT_EQ(rig.engine.ResettedModule(0), std::nullopt);
  rig.Run({&U::RequestResettedModules});
  EXPECT_EQ(rig.Count("INFO FirmwareUpdater: No resetted modules\n"), 1u);
}

TEST(Modules, OfADeviceThatNeverEndsItsListAreAsManyAsCanBeAskedFor) {
  EngineRig rig;
  rig.device->On("0x814", Answer({0x00, 0x80}));  // bit 15 is not part of the name
  rig.Run({&U::RequestResettedModules});
  EXPECT_TRUE(rig.engine.Succeeded());
  EXPECT_EQ(rig.device->requests.size(), 256u);
  EXPECT_EQ(rig.device->requests.back(), "0x814 FF");
  EXPECT_EQ(rig.engine.ResettedModule(255), "@@@");
  EXPECT_EQ(rig.engine.ResettedModule(256), std::nullopt);
}

TEST(BootloaderEntry, TheVersionDecidesSendModeAndVerification) {
  for (const std::uint8_t version : Bytes{1, 2, 3, 255}) {
    SCOPED_TRACE(int{version});
    EngineRig rig;
    rig.device->On("0x120", Answer({version, 0x80}));
    rig.Run({&U::CheckVersion, &U::Verify});
    EXPECT_TRUE(rig.engine.Succeeded());
    EXPECT_EQ(rig.access.blockSize, 128u);
    EXPECT_EQ(rig.device->GetSendMode(), version >= 2 ? SendMode::Buffer : SendMode::Byte);
    EXPECT_EQ(rig.device->requests, version >= 3 ? Texts({"0x120", "0x136"}) : Texts{"0x120"});
  }
}

TEST(BootloaderEntry, ASlowBootloaderIsAskedAgainAfterAPause) {
  for (const StepFunction step : {&U::CheckVersion, &U::RequestProcessorId}) {
    EngineRig rig;
    rig.device->On("", kSilence, kRefusal, kSilence, Answer({1, 64}));
    rig.Run({step});
    EXPECT_TRUE(rig.engine.Succeeded());
    EXPECT_EQ(rig.platform.Sleeps(), std::vector<std::chrono::milliseconds>(3, 1s));
    EXPECT_EQ(rig.access.retryCount, 0) << "the next step has all its tries";
  }
}

TEST(SilentDevice, IsAskedABoundedNumberOfTimes) {
  struct Case {
    const char* name;
    StepFunction step;
    std::size_t requests;
    std::chrono::milliseconds time;
    bool succeeds;
  };
  for (const Case& row : {Case{"version", &U::CheckVersion, 7, 34s, false},
                          {"processor id", &U::RequestProcessorId, 7, 34s, false},
                          {"device id", &U::RequestDeviceId, 4, 16s, false},
                          {"software id", &U::RequestSoftwareId, 4, 16s, true},
                          {"writing", &U::WriteBlock, 7, 28s, false},
                          {"application", &U::WaitForApplication, 7, 28s, false},
                          {"application, tolerant", &U::WaitForApplicationTolerant, 7, 28s, true},
                          {"erase", &U::EraseApplication, 1, 4s, false}}) {
    SCOPED_TRACE(row.name);
    EngineRig rig;
    rig.platform.SetTickOffset(0xFFFFFFFF - 9999);  // the tick counter wraps after 10 s
    rig.Load(ImageWithAdb(5, 0));
    rig.access.blockSize = 64;
    rig.access.processorId = rig.access.softwareId = 0x1E9748;  // of an earlier question
    rig.device->On("", kSilence);
    rig.Run({row.step});
    ASSERT_FALSE(rig.device->requests.empty());
    EXPECT_EQ(rig.device->requests, Texts(row.requests, rig.device->requests.front()));
    EXPECT_EQ(rig.platform.MonotonicNow(), row.time);
    EXPECT_EQ(rig.access.processorId == -1, row.step == &U::RequestProcessorId);
    EXPECT_EQ(rig.access.softwareId == -1, row.step == &U::RequestSoftwareId);
    EXPECT_EQ(rig.engine.Succeeded(), row.succeeds);
    EXPECT_EQ(rig.engine.LastError(), row.succeeds ? ErrorCode::None : ErrorCode::Timeout);
  }
}

TEST(SilentDevice, TimeLimitsIncludeTheirLastMillisecond) {
  for (const auto& [step, limit] :
       {std::pair{&U::RequestDeviceIdAdmin, 15000ms}, std::pair{&U::WaitForApplication, 25000ms}}) {
    EngineRig rig;
    rig.platform.Advance(1h);
    EXPECT_EQ(rig.Call(step, StepPhase::Start), Wait);
    rig.platform.Advance(limit);
    EXPECT_EQ(rig.Call(step, StepPhase::Timeout), Wait);
    rig.platform.Advance(1ms);
    EXPECT_EQ(rig.Call(step, StepPhase::Timeout), Failed);
  }
}

TEST(Selection, TakesTheImageForTheProcessorElseTheOnlyOneThatNamesNone) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::uint8_t, std::uint16_t>> images;  // ADB types and MCU ids
    std::int32_t processorId;
    int selected;  // -1: none
    const char* line = "";
  };
  // clang-format off
  const Case cases[] = {
    {"named in the ADB", {{6, 256}}, 0x1E9748, 0, "DBG  FirmwareUpdater: Select Firmware: Firmware found\n"},
    {"another processor", {{6, 256}}, 0x1E9749, -1},
    {"names none", {{2, 0}}, 0x1E9748, 0, "DBG  FirmwareUpdater: Select Firmware: ADB without MCU-ID\n"},
    {"two that name none", {{2, 0}, {2, 0}}, 0x1E9748, -1},
    {"one that names none behind others", {{6, 257}, {2, 0}}, 0x1E9748, 1},
    {"unknown id", {{7, 300}}, 0x1E9748, -1, "WARN FirmwareUpdater: Select Firmware: Unknown MCU-ID\n"},
    {"named in the trailer", {{6, 256}, {3, 0x105}}, 0x1E9842, 1},
    {"first of several", {{6, 257}, {7, 256}, {6, 256}}, 0x1E9748, 1},
    {"no processor id", {{6, 256}, {6, 257}}, -1, -1},
    {"no processor id, one names none", {{6, 256}, {2, 0}}, -1, 1},
  };
  // clang-format on
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    EngineRig rig;
    for (const auto& [adbType, mcuId] : row.images) {
      rig.access.images.push_back(ImageWithAdb(adbType, 0x8410, {}, mcuId));
    }
    rig.access.processorId = row.processorId;
    rig.access.selected = &rig.access.images.front();
    EXPECT_EQ(rig.Call(&U::SelectFirmware, StepPhase::Start), row.selected < 0 ? Failed : Done);
    EXPECT_EQ(rig.access.selected,
              row.selected < 0 ? nullptr : &rig.access.images[static_cast<size_t>(row.selected)]);
    EXPECT_TRUE(rig.platform.ConsoleHas(row.line));
  }
}

}  // namespace
}  // namespace tavo::test
