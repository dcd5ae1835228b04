// Whole updates in one process, on a virtual clock, against the simulated device: what goes over
// the line, what the device holds afterwards, and what a person sees.
#include <gtest/gtest.h>

#include <map>

#include "testbench/station.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceOptions;
using tavosim::OptionsFor;

DeviceOptions Options(const char* family) { return OptionsFor(*tavosim::FindFamily(family)); }

const Lines kBootloaderOnlyUpdate = kCallBootloader + Lines{"0x120", "0x121", "0x132", "0x130 01"} +
                                    kFlash16K + kVerifyAndStart + kSignOfLife;

const std::map<std::string, Lines> kUpdateOfFamily{
    {"plain", kPlainUpdate},
    {"tunnel", kTunnelUpdate},
    // The alternative message type, only for these two requests.
    {"gateway", kLeave + kStatus + kDeviceId +
                    Lines{"0x100 ED 00 00 04", "0x180 BB 02", "0x180 FD 00"} + kProgramming +
                    kSignOfLife + kModules + kClose},
    // Bootloader 1: small blocks and nothing to verify with.
    {"legacy", kLeave + kStatus + kDeviceId + kSoftwareId + kCallBootloader + kUntilErase +
                   Lines{"120 blocks", "0x133 00 40 00 00", "0x12F"} + kSignOfLife + kSignOfLife +
                   kModules},
    {"labelled", kLeave + kStatus + kDeviceId + kSoftwareId + kCallBootloader + kProgramming +
                     Lines{"0x100 A0 02"} + kSignOfLife + kModules},
};

struct Road {
  const char* name;
  bool echo;
  bool (Station::*update)(const UpdateFlags&);
};
constexpr std::array kRoads{
    Road{"USB", false, &Station::UpdateOverUsb},
    Road{"FTDI", false, &Station::UpdateOverFtdi},
    Road{"FTDI with echo", true, &Station::UpdateOverFtdi},
};

TEST(WholeUpdate, SendsExactlyTheRequestsOfTheFamilyAndLeavesItsFirmwareRunning) {
  for (const auto& [family, requests] : kUpdateOfFamily) {
    for (const Road& road : kRoads) {
      SCOPED_TRACE(family + " over " + road.name);
      Station station(Options(family.c_str()), road.echo);
      EXPECT_TRUE((station.*road.update)({}));
      EXPECT_EQ(station.Requests(), requests);
      EXPECT_TRUE(station.FlashHoldsFirmware());
      EXPECT_TRUE(station.ApplicationRuns());
      EXPECT_EQ(station.device.OpenTunnel(), 0);
      EXPECT_EQ(station.engine.LastError(), ErrorCode::None);
    }
  }
}

TEST(WholeUpdate, FlagsLeaveOutWhatTheySay) {
  const Lines withoutIdentity = kLeave + kStatus + kSoftwareId + kCallBootloader +
                                Lines{"0x120", "0x121", "0x132", "0x130 03"} + kFlash16K +
                                kVerifyAndStart + kSignOfLife + kSignOfLife + kModules;
  Station station(Options("plain"));
  EXPECT_TRUE(station.UpdateOverUsb({.bootloaderOnly = true}));
  EXPECT_EQ(station.Requests(), kBootloaderOnlyUpdate);
  station.ForgetRequests();
  EXPECT_TRUE(station.UpdateOverUsb({.checkIdentity = false, .extendedErase = true}));
  EXPECT_EQ(station.Requests(), withoutIdentity);
}

TEST(WholeUpdate, APersonSeesTheDialogueInOrder) {
  Station station(Options("tunnel"));
  EXPECT_TRUE(station.UpdateOverUsb());
  const Lines dialogue = station.Dialogue();
  const Lines expected{
      "Firmware-Updater",
      "Firmware: " + station.platform.Folder() + "firmware.hex",
      "USB-Port: 1-4-2",
      "",
      "Start Update",
      "Preparing Device",
      "FirmwareUpdater: Check Application Section Size: Device 16384 | Firmware 16384",
      "Transferring Firmware",
      dialogue.at(8),  // the bar: below
      "Closing Tunnel",
      "Firmwareupdate successfull",
  };
  EXPECT_EQ(dialogue, expected);
  EXPECT_TRUE(dialogue[8].starts_with("[--------------------] 1")) << dialogue[8];
  EXPECT_GE(station.engine.Progress(), 1.0F);
  EXPECT_NE(station.Log().find("INFO FirmwareUpdater: Verify: successful"), std::string::npos);
}

struct OpenTunnelCase {
  const char* name;
  const char* family;
  std::uint16_t open;
  bool closeAnswered;
  bool succeeds;
  Lines requests;
  std::chrono::milliseconds setUpPause;  // 0 = no tunnel is opened
};

const OpenTunnelCase kOpenTunnelCases[] = {
    {"another route", "tunnel", 0x0402, true, true, kAfterOtherTunnel, 1000ms},
    {"another route, close unanswered", "tunnel", 0x0402, false, true, kAfterOtherTunnel, 1000ms},
    {"the right route", "tunnel", 0x0401, true, false, kUnreachable, 0ms},
    {"the right route, close unanswered", "tunnel", 0x0401, false, false, kUnreachable, 0ms},
    {"no route needed", "plain", 0x0402, true, true, kPlainAfterTunnel, 0ms},
    {"no route needed, close unanswered", "plain", 0x0402, false, true, kPlainAfterTunnel, 0ms},
    {"none open", "tunnel", 0, true, true, kTunnelUpdate, 6000ms},
    {"none open, close unanswered", "tunnel", 0, false, true, kTunnelUpdate, 6000ms},
    {"16, 16 means none", "tunnel", 0x1010, true, true, kTunnelUpdate, 1000ms},
};

TEST(WholeUpdate, ATunnelFoundOpenIsClosedFirstAndNothingIsOneOff) {
  for (const OpenTunnelCase& row : kOpenTunnelCases) {
    for (const Road& road : kRoads) {
      SCOPED_TRACE(std::string(row.name) + " over " + road.name);
      DeviceOptions options = Options(row.family);
      options.openTunnel = row.open;
      options.answersCloseTunnel = row.closeAnswered;
      Station station(options, road.echo);
      EXPECT_EQ((station.*road.update)({}), row.succeeds);
      EXPECT_EQ(station.Requests(), row.requests);
      EXPECT_EQ(station.FlashHoldsFirmware(), row.succeeds);
      const auto& sleeps = station.platform.Sleeps();
      for (const auto pause : {1000ms, 6000ms}) {
        if (row.succeeds) {
          EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), pause),
                    pause == row.setUpPause ? 1 : 0);
        }
      }
    }
  }
}

TEST(WholeUpdate, TwoTunnelUpdatesInARowAreTheSame) {
  for (const bool closeAnswered : {true, false}) {
    DeviceOptions options = Options("tunnel");
    options.answersCloseTunnel = closeAnswered;
    Station station(options);
    for (int update = 0; update < 2; ++update) {
      station.ForgetRequests();
      EXPECT_TRUE(station.UpdateOverUsb());
      EXPECT_EQ(station.Requests(), kTunnelUpdate);
    }
  }
}

TEST(WholeUpdate, ADeviceLostWhileWrittenIsRevivedInTheSameProcess) {
  Station station(Options("plain"), false, {"unplug:id=0x134:7:600s"});
  EXPECT_FALSE(station.UpdateOverUsb());
  EXPECT_EQ(station.engine.LastError(), ErrorCode::StartApplication);  // of the closing plan
  EXPECT_EQ(station.usb.OpenHandles(), 0);
  EXPECT_FALSE(station.UpdateOverUsb());
  EXPECT_TRUE(station.platform.ConsoleHas("Port 1-4-2 isnt found\n"));

  station.platform.Advance(600s);
  station.ForgetRequests();
  EXPECT_TRUE(station.UpdateOverUsb({.bootloaderOnly = true}));
  EXPECT_EQ(station.Requests(), kBootloaderOnlyUpdate);
  station.ForgetRequests();
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_EQ(station.Requests(), kPlainUpdate);
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

TEST(WholeUpdate, ADeviceThatLeavesTheBusWhenItEntersItsBootloaderIsFoundAgain) {
  Station station(Options("plain"), false, {"unplug:id=0x100:4:1500ms"});
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_EQ(station.Requests(), kPlainUpdate);
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

TEST(WholeUpdate, AStrayHeaderByteDelaysNothingForLong) {
  // 0xAF opens a frame of 132 bytes that never comes.
  Station station(Options("plain"), false, {"after:id=0x100:1:AF", "after:id=0x120:1:AF"});
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_EQ(station.Requests(), kPlainUpdate);
}

TEST(WholeUpdate, ASilentDeviceIsAskedAsOftenAsEachStepSays) {
  Station station(Options("plain"), false, {"lose:*"});
  EXPECT_FALSE(station.UpdateOverUsb());
  const Lines expected =
      kLeave + kStatus + Times(4, kDeviceId) + Times(4, {"0x802"}) + kClosingPlan;
  EXPECT_EQ(station.Requests(), expected);
  EXPECT_EQ(station.engine.LastError(), ErrorCode::Timeout);
  EXPECT_TRUE(station.platform.ConsoleHas("\nTimeout: Request Device-ID (Admin)\n"));
}

TEST(WholeUpdate, ResetModulesAreKeptByName) {
  DeviceOptions options = Options("plain");
  options.resetModules = {0x0443, 0x6338 | 0x0002};
  Station station(options);
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_EQ(station.engine.ResettedModule(0), "ABC");
  EXPECT_EQ(station.engine.ResettedModule(1), "XYZ");
  EXPECT_EQ(station.engine.ResettedModule(2), std::nullopt);
  EXPECT_TRUE(station.platform.ConsoleHas("Resetted Modules ABC, XYZ\n"));
}

}  // namespace
}  // namespace tavo::test
