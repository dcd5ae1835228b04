// Every way in which a step can end without success, and the steps that go on without an answer:
// the code that the host reads, the text that a person reads, and the line in the log.
#include <gtest/gtest.h>

#include "tests/support/engine_rig.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using U = FirmwareUpdater;
using enum StepResult;

void Nothing(EngineRig&) {}
void Refused(EngineRig& rig) { rig.device->On("", kRefusal); }
void RetriesUsedUp(EngineRig& rig) { rig.access.retryCount = 6; }
void IdentityTimeUp(EngineRig& rig) { rig.platform.Advance(15001ms); }
void WaitingTimeUp(EngineRig& rig) { rig.platform.Advance(25001ms); }
void VerifyingBootloader(EngineRig& rig) { rig.access.bootloaderVersion = 3; }
void KnownDevice(EngineRig& rig) { rig.access.deviceId = 0x0103; }
void Labelled(EngineRig& rig) {
  KnownDevice(rig);
  rig.Load(ImageWithAdb(5, 0, {{0x0103, {0x8430}}}));
}
void LabelledForOthers(EngineRig& rig) {
  KnownDevice(rig);
  rig.Load(ImageWithAdb(5, 0, {{0x0101, {0x8430}}}));
}
void Tunnelled(EngineRig& rig) { rig.Load(ImageWithAdb(2, 0x8150)); }
void OneOfThreeWithoutAdb(EngineRig& rig) {
  rig.access.images = {ImageWithAdb(2, 0x8410), {Bytes(64, 0), 0x4000}, ImageWithAdb(7, 0)};
}
void WithoutAdb(EngineRig& rig) {
  KnownDevice(rig);
  rig.Load({Bytes(64, 0), 0x4000});
}

using Preparation = std::function<void(EngineRig&)>;

template <typename... Preparations>
Preparation All(Preparations... preparations) {
  return [=](EngineRig& rig) { (preparations(rig), ...); };
}
Preparation Received(const Bytes& payload) {
  return [=](EngineRig& rig) { rig.Receive(payload); };
}
Preparation ToWrite(std::size_t size, std::uint32_t blockSize, std::uint32_t offset = 0) {
  return [=](EngineRig& rig) {
    rig.Load({Bytes(size, 0), 0x4000});
    rig.access.blockSize = blockSize;
    rig.access.BeginPositioning(offset);
  };
}

struct Failure {
  StepFunction step;
  StepPhase phase;
  Preparation prepare;
  StepResult result;
  std::uint32_t code;
  std::string text;
  std::string line = "";  // on the console, where each log line appears too
};

void Check(std::initializer_list<Failure> failures) {
  for (const Failure& row : failures) {
    SCOPED_TRACE(row.text + " / " + row.line);
    EngineRig rig;
    row.prepare(rig);
    EXPECT_EQ(rig.Call(row.step, row.phase), row.result);
    EXPECT_EQ(static_cast<std::uint32_t>(rig.engine.LastError()), row.code);
    EXPECT_EQ(rig.access.errorText, row.text);
    EXPECT_TRUE(row.line.empty() || rig.platform.ConsoleHas(row.line + "\n"));
  }
}

// clang-format off
TEST(Failures, RequestNotSentOrNotAnsweredInTime) {
  const struct {
    StepFunction step;
    Preparation prepare;
    std::uint32_t code;
    std::string notSent;     // behind "Error: "
    std::string notAnswered; // behind "Timeout: "; empty: the step goes on
    std::string level, line; // of the log, behind "FirmwareUpdater: "
  } rows[] = {
    {&U::LeaveBootloader, Nothing, 11, "Sending: Start Application Request", "", "", ""},
    {&U::RequestDeviceId, All(Labelled, IdentityTimeUp), 15, "Request Device-ID", "Request Device-ID", "WARN", "Request Device-ID: Timeout"},
    {&U::RequestDeviceId, All(Tunnelled, IdentityTimeUp), 15, "Request Device-ID", "", "WARN", "Request Device-ID: Timeout"},
    {&U::RequestDeviceIdAdmin, IdentityTimeUp, 15, "Request Device-ID (Admin)", "Request Device-ID (Admin)", "WARN", "Request Device-ID (Admin): Timeout"},
    {&U::InitTunnel, Tunnelled, 6, "Sending Init Tunnel Request", "", "INFO", "Init Tunnel: Timeout (Probably Bootloader)"},
    {&U::RequestSoftwareId, IdentityTimeUp, 15, "Request Software-ID", "", "WARN", "Request Software-ID: Timeout"},
    {&U::CallBootloader, Nothing, 12, "Sending Bootloader Request", "", "INFO", "Call Bootloader: Timeout (Probably Bootloader)"},
    {&U::CheckVersion, RetriesUsedUp, 2, "Bootloader Version Request", "Bootloader Version Request", "INFO", "Check Version: Timeout. Retry: 6"},
    {&U::RequestProcessorId, RetriesUsedUp, 15, "Request Prozessor-ID", "Request Prozessor-ID", "WARN", "Request Prozessor-ID: Timeout"},
    {&U::CheckApplicationSize, Nothing, 13, "Sending Application Size Request", "Application Size Request", "INFO", "Check Application Section Size: Timeout"},
    {&U::CheckHardwareId, Nothing, 3, "Sending Hardware ID Request", "Hardware ID Request", "INFO", "Timeout: Check Hardware ID Request"},
    {&U::EraseApplication, Nothing, 8, "Sending Erase Request", "Erase Request", "INFO", "Erase Application Memory: Timeout"},
    {&U::WriteBlock, All(ToWrite(128, 64, 64), RetriesUsedUp), 9, "Sending Flash Positioning Request", "Writing Flash", "INFO",
     "Write Block: Timeout in Mode: 1 at Address 0x00004040. Try: 6 of 6"},
    {&U::Verify, VerifyingBootloader, 14, "Sending Verify Request", "Verify Request", "INFO", "Verify: Timeout"},
    {&U::StartApplication, Nothing, 11, "Sending: Start Application Request", "Start Application Request", "INFO", "Start Application: Timeout"},
    {&U::WaitForApplication, WaitingTimeUp, 19, "Check Application", "Wait for Application", "INFO", "Timeout: Wait for Application"},
    {&U::WaitForApplicationTolerant, WaitingTimeUp, 19, "Check Application", "", "INFO", "Warning: Wait for Application"},
    {&U::SetLabel, Labelled, 16, "Sending: Set Label Request", "Set Label Request", "WARN", "Set Label: Timeout"},
  };
  for (const auto& row : rows) {
    const bool tolerated = row.notAnswered.empty();
    const std::string timeout = tolerated ? "" : "Timeout: " + row.notAnswered;
    const std::string line = row.line.empty() ? "" : row.level + " FirmwareUpdater: " + row.line;
    Check({{row.step, StepPhase::Start, All(Refused, row.prepare), Failed, row.code, "Error: " + row.notSent},
           {row.step, StepPhase::Timeout, row.prepare, tolerated ? Done : Failed, tolerated ? 0u : 1u, timeout, line}});
  }
}

TEST(Failures, OfStepsThatReactInTheirOwnWay) {
  constexpr auto kAnswer = StepPhase::Answer;
  Check({
    {&U::TunnelStatus, StepPhase::Start, Refused, Done, 0, "",
     "INFO FirmwareUpdater: Tunnel Status: Error. Channelstatus set to zero."},
    {&U::InitTunnel,   StepPhase::Start, Refused, Done, 0, "", "INFO FirmwareUpdater: Init Tunnel: No Tunnel necessary."},
    {&U::WriteBlock,   kAnswer, All(Refused, ToWrite(64, 64)), Failed, 10, "Error: Sending Flash Writing Request"},
    {&U::WriteBlock,   kAnswer, ToWrite(510, 255), Failed, 10,
     "Error: Sending Flash Writing Request"},  // no message holds such a block
    {&U::RequestResettedModules, kAnswer, All(Refused, Received({0x43, 0x04})), Failed, 20,
     "Error: Request resetted Modules"},
    {&U::RequestResettedModules, StepPhase::Start, Refused, Failed, 20, "Error: Request resetted Modules"},
    {&U::RequestResettedModules, StepPhase::Timeout, Nothing, Done, 1, "Timeout: Request resetted Modules",
     "INFO FirmwareUpdater: Timeout: Request resetted Modules"},
    {&U::TunnelStatus, StepPhase::Timeout, Nothing, Done, 0, "", "INFO FirmwareUpdater: Tunnel Status: Timeout"},
    {&U::DeinitTunnel, StepPhase::Timeout, Nothing, Wait, 0, ""},
  });
}

TEST(Failures, UnfitAnswerOrFirmware) {
  constexpr auto kStart = StepPhase::Start;
  constexpr auto kAnswer = StepPhase::Answer;
  const std::string sizes = "Error: Application Size incorrect. Device: 98304 FW: ";
  const std::string argument = "INFO FirmwareUpdater: Write Block: Argument error: ";
  const std::string invalid = "FirmwareUpdater: Check Firmware: Invalid";
  const std::string noMatch = "FirmwareUpdater: Select Firmware: No matching firmware found";
  const std::string noImages = "FirmwareUpdater: Check Firmware: No firmware in the update file";
  const std::string unknownAdb = "Error: Sending: Set Label: Unknown ADB-Type";
  Check({
    {&U::CheckFirmware,   kStart, Nothing, Failed, 18, noImages, "CRIT " + noImages},
    {&U::CheckFirmware,   kStart, OneOfThreeWithoutAdb, Failed, 18, invalid, "CRIT " + invalid},
    {&U::CheckFirmware,   kStart, Tunnelled, Done, 0, ""},
    {&U::SelectFirmware,  kStart, Nothing, Failed, 18, noMatch, "CRIT " + noMatch},
    {&U::CheckVersion,    kAnswer, Received({0, 64}), Failed, 2, "Error: Bootloader incompatible: Received Version: 0",
     "INFO FirmwareUpdater: Check Version: Expected Bootloader 1 | Received Version 0"},
    {&U::CheckApplicationSize, kAnswer, All(ToWrite(98303, 1), Received({96, 0})), Failed, 13, "", sizes + "98303"},
    {&U::CheckApplicationSize, kAnswer, All(ToWrite(98304, 100), Received({96, 0})), Failed, 13, "", sizes + "98304"},
    {&U::CheckApplicationSize, kAnswer, All(ToWrite(98304, 0), Received({96, 0})), Failed, 13, "", sizes + "98304"},
    {&U::CheckHardwareId, kAnswer, All(Labelled, Received({0x31, 0x84})), Failed, 3,
     "Error: Hardware ID incorrect. Device: 0x8431", "CRIT FirmwareUpdater: Hardware ID incorrect. Device: 0x0103"},
    {&U::CheckHardwareId, kAnswer, All(WithoutAdb, Received({0x30, 0x84})), Failed, 3,
     "Error: Hardware ID incorrect. Device: 0x8430", "CRIT FirmwareUpdater: Hardware ID incorrect. Device: 0x0103"},
    {&U::CheckHardwareId, kAnswer, All(LabelledForOthers, Received({0x30, 0x84})), Failed, 3,
     "Error: Firmware does not match the device (0x0103)",
     "CRIT FirmwareUpdater: Check HardwareId: Firmware does not match the device (0x0103)"},
    {&U::WriteBlock,      kStart, ToWrite(0, 64), Failed, 10, "Error: Writing Flash", argument + "Size:0 | Block:64 "},
    {&U::WriteBlock,      kStart, ToWrite(64, 0), Failed, 10, "Error: Writing Flash", argument + "Size:64 | Block:0 "},
    {&U::WriteBlock,      kStart, ToWrite(100, 128), Failed, 10, "Error: Writing Flash", argument + "Size:100 | Block:128 "},
    {&U::WriteBlock,      kAnswer, ToWrite(64, 64, 65), Failed, 10, "Error: Flash Writing. More Bytes than expected.",
     "INFO FirmwareUpdater: Write Block: More Bytes than expected. Firmware Size: 64 | Transferred Bytes: 65 (0)"},
    {&U::Verify,          kAnswer, All(VerifyingBootloader, Received({0x78, 0x56, 0x34, 0x12, 0x78, 0x56, 0x34, 0xF2})),
     Failed, 14, "Error: Verify. CRC calculation failed.",
     "INFO FirmwareUpdater: Verify: failed Calc:0x12345678 IAR:0xF2345678"},
    {&U::Verify,          kAnswer, All(VerifyingBootloader, Received({0x78, 0, 0, 0, 0x79, 0, 0, 0})),
     Failed, 14, "Error: Verify. CRC calculation failed."},
    {&U::SetLabel,        kStart, LabelledForOthers, Failed, 16, "Error: Sending: Set Label Request"},
    {&U::SetLabel,        kStart, WithoutAdb, Failed, 16, unknownAdb, "CRIT " + unknownAdb},
  });
}
// clang-format on

TEST(Failures, WithoutATransportTheVersionIsAskedForSevenTimesAndNoTunnelCountsAsOpen) {
  EngineRig rig(false);
  rig.access.activeTunnel = 0x0401;
  EXPECT_EQ(rig.Call(&U::TunnelStatus, StepPhase::Start), Done);
  EXPECT_EQ(rig.Count("CommSendRaw: No ICOMM Sender specified.\n"), 1u);
  EXPECT_EQ(rig.access.activeTunnel, 0);
  rig.Run({&U::CheckVersion});
  EXPECT_EQ(rig.Count("INFO CommSendTavo: No ICOMM Sender specified.\n"), 1u + 7u);
  EXPECT_EQ(rig.platform.Sleeps(), std::vector<std::chrono::milliseconds>(6, 1s));
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::BootloaderVersion);
}

}  // namespace
}  // namespace tavo::test
