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
TEST(Failures, RequestNotSent) {
  constexpr auto kStart = StepPhase::Start;
  const auto usedUp = All(Refused, RetriesUsedUp);
  Check({
    {&U::LeaveBootloader,      kStart, Refused, Failed, 11, "Error: Sending: Start Application Request"},
    {&U::TunnelStatus,         kStart, Refused, Done, 0, "",
     "INFO FirmwareUpdater: Tunnel Status: Error. Channelstatus set to zero."},
    {&U::RequestDeviceId,      kStart, Refused, Failed, 15, "Error: Request Device-ID"},
    {&U::RequestDeviceIdAdmin, kStart, Refused, Failed, 15, "Error: Request Device-ID (Admin)"},
    {&U::InitTunnel,           kStart, All(Refused, Tunnelled), Failed, 6, "Error: Sending Init Tunnel Request"},
    {&U::InitTunnel,           kStart, Refused, Done, 0, "", "INFO FirmwareUpdater: Init Tunnel: No Tunnel necessary."},
    {&U::RequestSoftwareId,    kStart, Refused, Failed, 15, "Error: Request Software-ID"},
    {&U::CallBootloader,       kStart, Refused, Failed, 12, "Error: Sending Bootloader Request"},
    {&U::CheckVersion,         kStart, usedUp, Failed, 2, "Error: Bootloader Version Request"},
    {&U::RequestProcessorId,   kStart, usedUp, Failed, 15, "Error: Request Prozessor-ID",
     "INFO FirmwareUpdater: Request Prozessor-ID: Error: Retry: 6"},
    {&U::CheckApplicationSize, kStart, Refused, Failed, 13, "Error: Sending Application Size Request"},
    {&U::CheckHardwareId,      kStart, Refused, Failed, 3, "Error: Sending Hardware ID Request"},
    {&U::EraseApplication,     kStart, Refused, Failed, 8, "Error: Sending Erase Request"},
    {&U::WriteBlock,           kStart, All(Refused, ToWrite(64, 64)), Failed, 9,
     "Error: Sending Flash Positioning Request"},
    {&U::WriteBlock,           StepPhase::Answer, All(Refused, ToWrite(64, 64)), Failed, 10,
     "Error: Sending Flash Writing Request"},
    {&U::WriteBlock,           StepPhase::Answer, ToWrite(510, 255), Failed, 10,
     "Error: Sending Flash Writing Request"},  // no message holds such a block
    {&U::Verify,               kStart, All(Refused, VerifyingBootloader), Failed, 14,
     "Error: Sending Verify Request"},
    {&U::StartApplication,     kStart, Refused, Failed, 11, "Error: Sending: Start Application Request"},
    {&U::WaitForApplication,   kStart, Refused, Failed, 19, "Error: Check Application",
     "INFO FirmwareUpdater: Error: Wait for Application"},
    {&U::WaitForApplicationTolerant, kStart, Refused, Failed, 19, "Error: Check Application",
     "INFO FirmwareUpdater: Error: Wait for Application"},
    {&U::SetLabel,             kStart, All(Refused, Labelled), Failed, 16, "Error: Sending: Set Label Request"},
    {&U::RequestResettedModules, kStart, Refused, Failed, 20, "Error: Request resetted Modules"},
    {&U::RequestResettedModules, StepPhase::Answer, All(Refused, Received({0x43, 0x04})), Failed, 20,
     "Error: Request resetted Modules"},
  });
}

TEST(Failures, NoAnswerInTime) {
  constexpr auto kTimeout = StepPhase::Timeout;
  Check({
    {&U::LeaveBootloader,      kTimeout, Nothing, Done, 0, ""},
    {&U::TunnelStatus,         kTimeout, Nothing, Done, 0, "", "INFO FirmwareUpdater: Tunnel Status: Timeout"},
    {&U::RequestDeviceId,      kTimeout, All(Labelled, IdentityTimeUp), Failed, 1, "Timeout: Request Device-ID",
     "WARN FirmwareUpdater: Request Device-ID: Timeout"},
    {&U::RequestDeviceId,      kTimeout, All(Tunnelled, IdentityTimeUp), Done, 0, "",
     "WARN FirmwareUpdater: Request Device-ID: Timeout"},
    {&U::RequestDeviceIdAdmin, kTimeout, IdentityTimeUp, Failed, 1, "Timeout: Request Device-ID (Admin)",
     "WARN FirmwareUpdater: Request Device-ID (Admin): Timeout"},
    {&U::InitTunnel,           kTimeout, Tunnelled, Done, 0, "",
     "INFO FirmwareUpdater: Init Tunnel: Timeout (Probably Bootloader)"},
    {&U::RequestSoftwareId,    kTimeout, IdentityTimeUp, Done, 0, "",
     "WARN FirmwareUpdater: Request Software-ID: Timeout"},
    {&U::CallBootloader,       kTimeout, Nothing, Done, 0, "",
     "INFO FirmwareUpdater: Call Bootloader: Timeout (Probably Bootloader)"},
    {&U::CheckVersion,         kTimeout, RetriesUsedUp, Failed, 1, "Timeout: Bootloader Version Request",
     "INFO FirmwareUpdater: Check Version: Timeout. Retry: 6"},
    {&U::RequestProcessorId,   kTimeout, RetriesUsedUp, Failed, 1, "Timeout: Request Prozessor-ID",
     "WARN FirmwareUpdater: Request Prozessor-ID: Timeout"},
    {&U::CheckApplicationSize, kTimeout, Nothing, Failed, 1, "Timeout: Application Size Request",
     "INFO FirmwareUpdater: Check Application Section Size: Timeout"},
    {&U::CheckHardwareId,      kTimeout, Nothing, Failed, 1, "Timeout: Hardware ID Request",
     "INFO FirmwareUpdater: Timeout: Check Hardware ID Request"},
    {&U::EraseApplication,     kTimeout, Nothing, Failed, 1, "Timeout: Erase Request",
     "INFO FirmwareUpdater: Erase Application Memory: Timeout"},
    {&U::WriteBlock,           kTimeout, All(ToWrite(128, 64, 64), RetriesUsedUp), Failed, 1, "Timeout: Writing Flash",
     "INFO FirmwareUpdater: Write Block: Timeout in Mode: 1 at Address 0x00004040. Try: 6 of 6"},
    {&U::Verify,               kTimeout, VerifyingBootloader, Failed, 1, "Timeout: Verify Request",
     "INFO FirmwareUpdater: Verify: Timeout"},
    {&U::StartApplication,     kTimeout, Nothing, Failed, 1, "Timeout: Start Application Request",
     "INFO FirmwareUpdater: Start Application: Timeout"},
    {&U::WaitForApplication,   kTimeout, WaitingTimeUp, Failed, 1, "Timeout: Wait for Application",
     "INFO FirmwareUpdater: Timeout: Wait for Application"},
    {&U::WaitForApplicationTolerant, kTimeout, WaitingTimeUp, Done, 0, "",
     "INFO FirmwareUpdater: Warning: Wait for Application"},
    {&U::SetLabel,             kTimeout, KnownDevice, Failed, 1, "Timeout: Set Label Request",
     "WARN FirmwareUpdater: Set Label: Timeout"},
    {&U::RequestResettedModules, kTimeout, Nothing, Done, 1, "Timeout: Request resetted Modules",
     "INFO FirmwareUpdater: Timeout: Request resetted Modules"},
    {&U::DeinitTunnel,         kTimeout, Nothing, Wait, 0, ""},
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
    {&U::CheckFirmware,   kStart, WithoutAdb, Failed, 18, invalid, "CRIT " + invalid},
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

TEST(Failures, OneBadImageSpoilsTheUpdateFile) {
  EngineRig rig;
  rig.access.images = {ImageWithAdb(2, 0x8410), ImageWithAdb(7, 0)};
  EXPECT_EQ(rig.Call(&U::CheckFirmware, StepPhase::Start), Done);
  rig.access.images.push_back({Bytes(64, 0), 0x4000});
  EXPECT_EQ(rig.Call(&U::CheckFirmware, StepPhase::Start), Failed);
}

TEST(Failures, WithoutATransportTheVersionIsAskedForSevenTimes) {
  EngineRig rig(false);
  rig.Run({&U::CheckVersion});
  EXPECT_EQ(rig.Count("INFO CommSendTavo: No ICOMM Sender specified.\n"), 7u);
  EXPECT_EQ(rig.platform.Sleeps(), std::vector<std::chrono::milliseconds>(6, 1s));
  EXPECT_EQ(rig.engine.LastError(), ErrorCode::BootloaderVersion);
}

TEST(Failures, WithoutATransportNoTunnelCountsAsOpen) {
  EngineRig rig(false);
  rig.access.activeTunnel = 0x0401;
  EXPECT_EQ(rig.Call(&U::TunnelStatus, StepPhase::Start), Done);
  EXPECT_EQ(rig.Count("CommSendRaw: No ICOMM Sender specified.\n"), 1u);
  EXPECT_EQ(rig.access.activeTunnel, 0);
}

}  // namespace
}  // namespace tavo::test
