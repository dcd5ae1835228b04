// The host tool as a process of its own, with real signals and real time. Runs on Linux, also with the
// Windows tool: see process_station.h.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>

#include "tests/support/process_station.h"

namespace tavo::test {
namespace {

constexpr int kDone = 0;
constexpr int kRuns = 1;
constexpr int kNoDevice = 3;
constexpr int kInBootloader = 5;
constexpr int kStopped = 6;
constexpr const char* kUpdated = "The device runs the new firmware, verified.\n";

// The words after "firmware-updater" in the command that the tool names last.
Words NamedCommand(const std::string& console) {
  constexpr std::string_view kTool = "firmware-updater ";
  const std::size_t begin = console.rfind(kTool);
  std::istringstream text(console.substr(
      begin + kTool.size(), console.find_first_of("\n\"", begin) - begin - kTool.size()));
  return {std::istream_iterator<std::string>(text), {}};
}

struct Story {
  const char* name;
  Words connection;
  Words fault;
  int exitCode;
  std::string ending;
};

// clang-format off
const Story kStories[] = {
    {"OverUsb", {}, {}, kDone, kUpdated},
    {"OverFtdi", {"--ftdi"}, {}, kDone, kUpdated},
    {"NoAnswerToVerify", {}, {"--fault", "lose:id=0x136:*"}, kRuns,
     "The device runs the new firmware; its flash is not verified. "
     "To try again, run: firmware-updater update firmware.hex --usb 1\n"},
    {"CablePulledWhileItWrites", {}, {"--fault", "unplug:id=0x134:40"}, kInBootloader,
     "The device is in its bootloader; its application is erased or partly written. "
     "To recover it, run: firmware-updater recover firmware.hex --usb 1\n"},
    {"AdapterPulledWhileItWrites", {"--ftdi"}, {"--fault", "unplug:id=0x134:40"}, kInBootloader,
     "To recover it, run: firmware-updater recover firmware.hex --ftdi TAVO0001\n"},
};
// clang-format on

void PrintTo(const Story& story, std::ostream* out) { *out << story.name; }

class EndToEndTool : public testing::Test {
 protected:
  // Plugs the device in again and runs the command that the tool has named, which updates the device.
  void Follow(const std::string& console, const Words& simulator) {
    ASSERT_TRUE(station.SwitchOff());
    ASSERT_TRUE(station.PlugIn(simulator));
    const Result result = station.Run("firmware-updater", NamedCommand(console));
    EXPECT_EQ(result.exitCode, kDone) << result.console;
    EXPECT_TRUE(result.console.ends_with(kUpdated)) << result.console;
  }
  static bool Await(const ChildProcess& tool, const char* moment) {
    return WaitUntil([&] { return tool.Output().find(moment) != std::string::npos; },
                     ProcessStation::kLongest);
  }
  // An update that has begun to write.
  ChildProcess StartUpdate() {
    EXPECT_TRUE(station.MakeFirmware("plain"));
    EXPECT_TRUE(station.PlugIn({"--block-time", "30"}));
    ChildProcess tool =
        station.Start(station.Copy("firmware-updater") + Words{"update", "firmware.hex", "--json"});
    EXPECT_TRUE(Await(tool, "\"event\":\"bytes\""));
    return tool;
  }
  // A second stop, after the result, changes nothing any more.
  void ExpectStopped(const std::function<void(ChildProcess& tool)>& stop) {
    ChildProcess tool = StartUpdate();
    stop(tool);
    EXPECT_TRUE(Await(tool, "\"event\":\"result\""));
    stop(tool);
    EXPECT_EQ(tool.Wait(ProcessStation::kPrompt), kStopped);
    const std::string console = tool.Output();
    for (const char* text : {"Stopping before the next request; ", "\"ending\":\"stopped\"",
                             "\"device\":\"bootloader-flash-erased\"",
                             "\"next\":\"firmware-updater recover firmware.hex --usb 1\""}) {
      EXPECT_NE(console.find(text), std::string::npos) << text << console;
    }
    EXPECT_FALSE(station.FlashHoldsFirmware());
    Follow(console, {});
    EXPECT_TRUE(station.FlashHoldsFirmware());
  }

  ProcessStation station;
};

class EndToEndToolUpdate : public EndToEndTool, public testing::WithParamInterface<Story> {};

TEST_P(EndToEndToolUpdate, SaysHowItEndedAndNamesTheCommandThatHelps) {
  const Story& story = GetParam();
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn(story.connection + story.fault));
  const Words target = story.connection.empty() ? Words{} : Words{"--ftdi", "TAVO0001"};
  const Result result = station.Run("firmware-updater", Words{"update", "firmware.hex"} + target);
  EXPECT_EQ(result.exitCode, story.exitCode) << result.console;
  EXPECT_TRUE(result.console.ends_with(story.ending)) << result.console;
  if (story.exitCode != kDone) Follow(result.console, story.connection);
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

INSTANTIATE_TEST_SUITE_P(Stories, EndToEndToolUpdate, testing::ValuesIn(kStories),
                         [](const auto& row) { return row.param.name; });

TEST_F(EndToEndTool, AfterAKillInfoNamesTheCommandThatRecoversTheDevice) {
  if (station.IsWindows()) GTEST_SKIP() << "Wine keeps the sockets of a killed program open";
  StartUpdate().Send(SIGKILL);
  const Result info = station.Run("firmware-updater", {"info", "firmware.hex"});
  EXPECT_EQ(info.exitCode, kDone);
  EXPECT_TRUE(info.console.ends_with(": firmware-updater recover firmware.hex --usb 1\n"))
      << info.console;
}

TEST_F(EndToEndTool, CtrlCStopsItWithAnExplanation) {
  ExpectStopped([](ChildProcess& tool) { tool.Send(SIGINT); });
}

TEST_F(EndToEndTool, ARequestToEndStopsItAsCtrlCDoes) {
  ExpectStopped([this](ChildProcess& tool) {
    if (!station.IsWindows()) return tool.Send(SIGTERM);
    const Words program{(station.folder / "firmware-updater.exe").string()};
    station.Start(station.Copy("ctrl_break") + program, "break.txt").Wait(ProcessStation::kPrompt);
  });
}

TEST_F(EndToEndTool, ItsOwnSimulatorsAreSeenByTheirCommandAloneAndKeepTheirState) {
  ASSERT_TRUE(station.MakeFirmware("plain"));
  const Words simulate{"simulate", "--state", "device0"};
  const Words tool{"--", "firmware-updater"};
  const Words cable{"--fault", "unplug:id=0x134:40"};
  const Result cut =
      station.RunToolInPlace(simulate + cable + tool + Words{"update", "firmware.hex"});
  EXPECT_EQ(cut.exitCode, kInBootloader) << cut.console;
  const Result recovered = station.RunToolInPlace(simulate + tool + NamedCommand(cut.console));
  EXPECT_EQ(recovered.exitCode, kDone) << recovered.console;
  EXPECT_TRUE(station.FlashHoldsFirmware());
  const Result both =
      station.RunToolInPlace(simulate + tool + Words{"simulate", "--ftdi"} + tool + Words{"list"});
  EXPECT_NE(both.console.find("--usb 1 "), std::string::npos) << both.console;
  EXPECT_NE(both.console.find("--ftdi TAVO0001 "), std::string::npos) << both.console;
  const Result none = station.RunToolInPlace({"list"});
  EXPECT_EQ(none.exitCode, kNoDevice) << none.console;
}

TEST_F(EndToEndTool, OfSeveralDevicesOneIsPulledInMidWriteAndTheOthersAreUpdated) {
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--port-path", "1-1"}));
  ASSERT_TRUE(
      station.PlugIn({"--family", "plain", "--port-path", "1-2", "--fault", "unplug:id=0x134:20"}));
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--port-path", "1-3"}));
  const Result result =
      station.Run("firmware-updater", {"update", "firmware.hex", "--all", "--tag", "unit=-7",
                                       "--log", "tool.log", "--journal", "j"});
  EXPECT_EQ(result.exitCode, kInBootloader) << result.console;
  for (const char* text : {"usb-1: The device runs the new firmware, verified.\n",
                           "usb-2: Writing               failed",
                           "To recover it, run: firmware-updater recover firmware.hex --usb 2\n",
                           "usb-3: The device runs the new firmware, verified.\n",
                           "\n3 devices: 2 succeeded, 1 failed, 0 stopped.\n"}) {
    EXPECT_NE(result.console.find(text), std::string::npos) << text << result.console;
  }
  EXPECT_TRUE(station.FlashHoldsFirmware());
  EXPECT_FALSE(FileText(station.folder / "tool-usb-3.log").empty());
  const std::string journal = FileText(station.folder / "j");
  EXPECT_EQ(std::ranges::count(journal, '\n'), 3);
  EXPECT_NE(journal.find("\"unit\":\"-7\""), std::string::npos) << journal;
}

TEST_F(EndToEndTool, AStationShowsItsVerdictsAndEndsWhenEnoughDevicesHavePassed) {
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn({"--port-path", "1-2", "--leave-answer"}));
  ASSERT_TRUE(station.PlugIn({"--port-path", "1-1", "--leave-answer", "--hardware-id", "0x8110"}));
  const Result result = station.Run(
      "firmware-updater", {"station", "firmware.hex", "--usb", "1", "--usb", "2", "--count", "1"});
  EXPECT_EQ(result.exitCode, 0) << result.console;
  for (const char* text : {"usb-1: FAIL\n", "usb-2: PASS\n1 passed, 1 failed.\n"}) {
    EXPECT_NE(result.console.find(text), std::string::npos) << text << result.console;
  }
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

TEST_F(EndToEndTool, EachChannelOfAnAdapterIsAnAdapter) {
  if (station.IsWindows()) GTEST_SKIP() << "the substitute FTD2XX.dll knows one channel";
  ASSERT_TRUE(station.MakeFirmware("plain"));
  ASSERT_TRUE(station.PlugIn({"--family", "plain", "--ftdi", "--channels", "4"}));
  const Result list = station.Run("firmware-updater", {"list"});
  for (const char channel : {'A', 'B', 'C', 'D'}) {
    EXPECT_NE(list.console.find(std::string("--ftdi TAVO0001") + channel), std::string::npos)
        << list.console;
  }
  const Result update =
      station.Run("firmware-updater", {"update", "firmware.hex", "--ftdi", "TAVO0001D"});
  EXPECT_EQ(update.exitCode, 0) << update.console;
  EXPECT_TRUE(station.FlashHoldsFirmware());
}

}  // namespace
}  // namespace tavo::test
