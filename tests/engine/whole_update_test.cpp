// Whole updates in one process, on a virtual clock, against the simulated device: what goes over
// the line, and what the device holds afterwards.
#include <gtest/gtest.h>

#include <map>

#include "tests/support/station.h"

namespace tavo::test {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceOptions;
using tavosim::OptionsFor;

DeviceOptions Options(const char* family) { return OptionsFor(*tavosim::FindFamily(family)); }

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

TEST(WholeUpdate, ADryRunEndsBeforeTheEraseWithTheOldApplication) {
  Station station(Options("labelled"));
  const std::vector<std::uint8_t> before = station.device.ApplicationFlash().Bytes();
  EXPECT_TRUE(station.UpdateOverUsb({.dryRun = true}));
  const Lines checks{"0x120", "0x121", "0x132", "0x122", "0x12F"};
  EXPECT_EQ(station.Requests(),
            kLeave + kStatus + kDeviceId + kSoftwareId + kCallBootloader + checks + kSignOfLife);
  EXPECT_EQ(station.device.ApplicationFlash().Bytes(), before);
  EXPECT_TRUE(station.ApplicationRuns());
  EXPECT_EQ(station.engine.DeviceState().device, DeviceCondition::OldApplicationRuns);
  EXPECT_FALSE(station.platform.ConsoleHas("Firmwareupdate successfull"));
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
      if (!row.succeeds) continue;
      if (row.family == std::string("tunnel")) {
        EXPECT_EQ(station.engine.DeviceState().tunnel,
                  row.closeAnswered ? TunnelCondition::Closed : TunnelCondition::Unknown);
      }
      const auto& sleeps = station.platform.Sleeps();
      for (const auto pause : {1000ms, 6000ms}) {
        EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), pause), pause == row.setUpPause ? 1 : 0);
      }
      station.ForgetRequests();
      EXPECT_TRUE((station.*road.update)({})) << "the next one finds none open";
      EXPECT_EQ(station.Requests(), kUpdateOfFamily.at(row.family));
    }
  }
}

TEST(WholeUpdate, ANeighbourAtTheSamePortOfAnotherBusIsNeverTouched) {
  Station station(Options("plain"), false, {"unplug:id=0x134:5:1s"});
  tavosim::Device neighbour(Options("plain"));
  tavosim::CdcFunction function(neighbour);
  station.usb.Plug(neighbour, function, {1, 4, 2}, 2);
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_TRUE(neighbour.Journal().empty());
  EXPECT_TRUE(
      station.platform.ConsoleHas("WARN CommInterface: 2 devices of this name: "
                                  "Taking port 1-4-2 on bus 1\n"));
}

TEST(WholeUpdate, AGlitchOnTheAdaptersInputCostsNoUpdate) {
  for (const TransferEnd end : {TransferEnd::Failed, TransferEnd::Stalled}) {
    Station station(Options("plain"));
    bool done = false;
    station.d2xx.endTransfer = [&]() -> std::optional<TransferEnd> {
      if (done || station.engine.Progress() < 0.5F) return std::nullopt;
      done = true;
      return end;
    };
    EXPECT_TRUE(station.UpdateOverFtdi());
    EXPECT_EQ(station.Requests(), kPlainUpdate) << "the adapter has kept the answer";
    EXPECT_TRUE(done);
    EXPECT_TRUE(station.platform.ConsoleHas("WARN CCommFTDI: Input interrupted, Error: 4\n"));
  }
}

TEST(WholeUpdate, AStopWhileTheDeviceIsBeingOpenedEndsThatUpdateAndNoOther) {
  Station station(Options("plain"));
  station.usb.onOpening = [&] { station.engine.RequestStop(); };
  EXPECT_FALSE(station.UpdateOverUsb());
  EXPECT_EQ(station.Requests(), Lines{});
  EXPECT_TRUE(station.platform.ConsoleHas("\nFirmwareupdate Error: 15\n"));
  station.usb.onOpening = [] {};
  station.engine.RequestStop();
  EXPECT_TRUE(station.UpdateOverUsb());
}

// A request that goes out while a frame is half received or half sent would be answered one off.
TEST(WholeUpdate, NothingIsSentBeforeTheLineIsQuiet) {
  const Lines untilBootloader = kLeave + kStatus + kDeviceId + kSoftwareId + kCallBootloader;
  const Lines versionAgain{"0x120"};
  Station strayed(Options("plain"), false, {"lose:id=0x120:1"});
  int silentReads = 0;
  strayed.usb.tamper = [&](Bytes& said) {  // a header byte seconds after the request
    if (strayed.Requests().size() == untilBootloader.size() + 1 && ++silentReads == 60)
      said = {0xA5};
  };
  EXPECT_TRUE(strayed.UpdateOverUsb());
  EXPECT_EQ(strayed.Requests(),
            untilBootloader + versionAgain + kProgramming + kSignOfLife + kModules);
  EXPECT_FALSE(strayed.platform.ConsoleHas(" Retry: 1\n"));

  Station halfSent(Options("plain"));
  int bytes = 0;
  halfSent.usb.failSend = [&] {
    return halfSent.Requests().size() == untilBootloader.size() && ++bytes == 2;
  };
  EXPECT_TRUE(halfSent.UpdateOverUsb());
  EXPECT_EQ(halfSent.Requests(), kPlainUpdate);
  EXPECT_FALSE(halfSent.platform.ConsoleHas("Check Version: Timeout"));

  Station late(Options("plain"), false, {"repeat:id=0x12F:2:20ms"});
  EXPECT_TRUE(late.UpdateOverUsb({.dryRun = true}));
  EXPECT_TRUE(late.UpdateOverUsb());
  EXPECT_FALSE(late.platform.ConsoleHas("Bootloader was active")) << "an answer to the last update";
}

TEST(WholeUpdate, AStrayHeaderByteDelaysNothingForLong) {
  // 0xAF opens a frame of 132 bytes that never comes.
  Station station(Options("plain"), false, {"after:id=0x100:1:AF", "after:id=0x120:1:AF"});
  EXPECT_TRUE(station.UpdateOverUsb());
  EXPECT_EQ(station.Requests(), kPlainUpdate);
}

}  // namespace
}  // namespace tavo::test
