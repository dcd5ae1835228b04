// The shared library as a host meets it: real processes, a real socket between host and device, and
// real time, so that a scenario lasts as long as the pauses and answer timeouts in it (seconds to
// minutes). Each is a test of its own for ctest, which overlaps them. Runs on Linux, also with Windows
// hosts: see process_station.h.
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/process_station.h"

namespace tavo::test {
namespace {

const Words kUsb{"usb", "", "firmware.hex"};
const Words kFtdi{"ftdi", "", "19200", "firmware.hex"};

Lines Opening(const std::string& port) {
  return {"Firmware-Updater", "Firmware: firmware.hex", port, "Start Update", "Preparing Device"};
}
const Lines kOverUsb = Opening("USB-Port: 1");
const Lines kOverFtdi = Opening("FtDI-Port: TAVO0001");
const Lines kTransfer{
    "FirmwareUpdater: Check Application Section Size: Device 16384 | Firmware 16384",
    "Transferring Firmware", "[--------------------] 115 %"};
const Lines kSuccess{"Firmwareupdate successfull"};
const Lines kClosingTunnel{"Closing Tunnel"};
const Lines kGood{"succeeded, last error 0, progress 1.15"};
const Lines kSilentAtVerification =
    Lines(kPlainUpdate.begin(), kPlainUpdate.end() - 4) + kStatus + kLeave + kSignOfLife;

struct Scenario {
  const char* name;
  const char* family;  // also of the firmware
  Words simulator;     // further options of it
  Words host;
  int exitCode;
  Lines requests;
  Lines dialogue;
};

const Lines kPlainDialogue = kTransfer + kSuccess + kGood;
const Lines kTunnelDialogue = kTransfer + kClosingTunnel + kSuccess + kGood;

// clang-format off
const Scenario kScenarios[] = {
    {"OverUsb", "plain", {}, kUsb, 0, kPlainUpdate, kOverUsb + kPlainDialogue},
    {"OverFtdi", "plain", {"--ftdi"}, kFtdi, 0, kPlainUpdate, kOverFtdi + kPlainDialogue},
    {"OverFtdiWithEcho", "plain", {"--ftdi", "--echo"}, kFtdi + Words{"--echo"}, 0, kPlainUpdate,
     kOverFtdi + kPlainDialogue},
    {"ThroughATunnelTwiceInOneProcess", "tunnel", {}, kUsb + Words{"--twice"}, 0,
     kTunnelUpdate + kTunnelUpdate,
     kOverUsb + kTransfer + kClosingTunnel + kSuccess + kOverUsb + kTunnelDialogue},
    {"UnpluggedForAMomentAtBootloaderEntry", "plain", {"--fault", "unplug:id=0x100:4:1500ms"},
     kUsb, 0, kPlainUpdate, kOverUsb + kPlainDialogue},
    {"SilentAtVerification", "plain", {"--fault", "lose:id=0x136:*"}, kUsb, 1,
     kSilentAtVerification,
     kOverUsb + kTransfer +
         Lines{"Timeout: Verify Request", "failed, last error 1, progress 1.15"}},
};
// clang-format on

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

// Some messages and the space between dialogue and update are empty lines: a matter of looks.
Lines Dialogue(const Result& result) {
  Lines lines = DialogueOf(result.console);
  std::erase(lines, "");
  return lines;
}

Lines LogLinesOf(const std::string& text) {
  Lines lines = LinesOf(text);
  std::erase_if(lines, [](const std::string& line) { return !IsLogLine(line); });
  return lines;
}

class EndToEnd : public testing::TestWithParam<Scenario> {
 protected:
  ProcessStation station;
};

TEST_P(EndToEnd, RunsAsAPersonAndTheDeviceExpect) {
  const Scenario& scenario = GetParam();
  ASSERT_TRUE(station.MakeFirmware(scenario.family));
  ASSERT_TRUE(station.PlugIn(Words{"--family", scenario.family} + scenario.simulator));
  const Result result = station.RunHost(scenario.host);
  EXPECT_EQ(result.exitCode, scenario.exitCode) << result.console;
  EXPECT_EQ(Dialogue(result), scenario.dialogue);
  EXPECT_EQ(station.TakeRequests(), scenario.requests);
  EXPECT_TRUE(station.FlashHoldsFirmware());
  EXPECT_EQ(LogLinesOf(station.Log()), LogLinesOf(result.console));
  EXPECT_TRUE(station.SwitchOff());
}

INSTANTIATE_TEST_SUITE_P(Update, EndToEnd, testing::ValuesIn(kScenarios),
                         [](const auto& row) { return row.param.name; });

TEST(EndToEndListing, NamesUsbDevicesThenAdaptersAndChangesNothing) {
  ProcessStation station;
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--port-path", "1-4.2"}));
  ASSERT_TRUE(station.PlugIn(
      {"--family", "plain", "--port-path", "2-3", "--ftdi", "--description", "Tavo adapter"}));
  ASSERT_TRUE(station.PlugIn({"--family", "tunnel", "--port-path", "1-1"}));
  const Result result = station.RunHost({"list"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.console,
            "VID:03eb PID:2404 Port: 4-2\nVID:03eb PID:2404 Port: 1\nTavo adapter\n");
  EXPECT_EQ(station.TakeRequests(), Lines());
  EXPECT_TRUE(station.SwitchOff());
}

// What a host gets that loads the library, updates and unloads it; also while another of its threads acts.
struct LoadingHost {
  const char* name;
  Words arguments;
  int exitCode;
  std::string ending;
};

const std::string kUpdated = "updated 1, last error 0, ended elsewhere, unloaded 1\n";
const LoadingHost kHosts[] = {
    {"UpdatesOverUsb", {"usb", "firmware.hex"}, 0, kUpdated},
    {"UpdatesOverFtdi", {"ftdi", "firmware.hex"}, 0, kUpdated},
    {"ListsMeanwhileOverUsb", {"usb", "firmware.hex", "list"}, 0, kUpdated},
    {"ListsMeanwhileOverFtdi", {"ftdi", "firmware.hex", "list"}, 0, kUpdated},
    {"Stops",
     {"usb", "firmware.hex", "stop"},
     1,
     "updated 0, last error 0, ended midway, unloaded 1\n"},
    {"Leaves", {"usb", "firmware.hex", "leave"}, 7, ""},
};

void PrintTo(const LoadingHost& host, std::ostream* out) { *out << host.name; }

class EndToEndHost : public testing::TestWithParam<LoadingHost> {};

TEST_P(EndToEndHost, EndsAsExpected) {
  const LoadingHost& host = GetParam();
  ProcessStation station;
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(
      station.PlugIn({"--family", "plain", "--block-time", "20", "--" + host.arguments[0]}));
  const Result result = station.Run("test_host", host.arguments);
  EXPECT_EQ(result.exitCode, host.exitCode) << result.console;
  EXPECT_TRUE(result.console.ends_with(host.ending)) << result.console;
  const bool reported = result.console.find("Firmwareupdate Error: 15\n") != std::string::npos;
  EXPECT_EQ(reported, host.arguments.back() == "stop") << result.console;
  EXPECT_EQ(station.FlashHoldsFirmware(), host.ending == kUpdated);
  EXPECT_TRUE(station.SwitchOff());
}

INSTANTIATE_TEST_SUITE_P(Loading, EndToEndHost, testing::ValuesIn(kHosts),
                         [](const auto& row) { return row.param.name; });

void ExpectUpdate(const std::string& kind, const std::string& ending,
                  const std::function<Result(const ProcessStation&)>& run) {
  SCOPED_TRACE(kind);
  ProcessStation station;
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--" + kind}));
  const Result result = run(station);
  EXPECT_EQ(result.exitCode, 0) << result.console;
  EXPECT_TRUE(result.console.ends_with(ending)) << result.console;
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

TEST(EndToEndMinimal, TheMinimalHostUpdatesTheDevice) {
  ExpectUpdate("usb", "\nresult: updated\n", [](const ProcessStation& station) {
    return station.Run("minimal-host", {"firmware.hex"});
  });
}

void ExpectUpdates(Words (ProcessStation::*host)() const) {
  for (const Words& words : {Words{"usb", ""}, Words{"ftdi", "", "19200"}}) {
    ExpectUpdate(words[0], "updated\n", [&](const ProcessStation& station) {
      const Words command = (station.*host)();
      EXPECT_NE(station.RunCommand(command + Words{"list"}).console, "") << "a line for the device";
      return station.RunCommand(command + words + Words{"firmware.hex"});
    });
  }
}

TEST(EndToEndExamples, TheHostInPythonUpdatesTheDevice) {
  ExpectUpdates(&ProcessStation::PythonHost);
}

TEST(EndToEndExamples, TheHostInCSharpUpdatesTheDevice) {
  ExpectUpdates(&ProcessStation::CSharpHost);
}

// Mono sees Ctrl-C only on a terminal, and asks that for the place of its cursor first.
TEST(EndToEndExamples, TheHostInCSharpStopsOnCtrlCAndNamesTheCauseOfAFailure) {
  ProcessStation station;
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--block-time", "20"}));
  const Words host = station.CSharpHost();
  const Result stopped =
      station.RunCommand({"sh", "-c",
                          "{ printf '\\033[1;1R'; for n in $(seq 200); do grep -q 'progress 1' "
                          "console.txt && break; sleep 0.1; done;"
                          " printf '\\003'; } | script -qec 'exec " +
                              host[0] + " " + host[1] + " usb \"\" firmware.hex' /dev/null"});
  EXPECT_EQ(stopped.exitCode, 1);
  EXPECT_NE(stopped.console.find("\nstopped\n"), std::string::npos) << stopped.console;
  EXPECT_FALSE(station.FlashHoldsFirmware());

  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--ftdi"}));
  const Result refused = station.RunCommand(host + Words{"ftdi", "", "19200", "image.bin"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_TRUE(
      refused.console.ends_with("\nfailed: the update file holds no valid firmware, or none "
                                "that matches the device\n"))
      << refused.console;
}

}  // namespace
}  // namespace tavo::test
