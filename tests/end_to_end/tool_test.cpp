// The host tool as a process of its own, with real signals and real time.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/process_station.h"

namespace tavo::test {
namespace {

constexpr int kDone = 0;
constexpr int kStopped = 6;

// An update that has begun to write.
ChildProcess StartUpdate(ProcessStation& station) {
  EXPECT_TRUE(station.MakeFirmware("plain"));
  EXPECT_TRUE(station.PlugIn({"--family", "plain", "--block-time", "30"}));
  ChildProcess tool = station.Start("firmware-updater", {"update", "firmware.hex", "--json"});
  EXPECT_TRUE(
      WaitUntil([&] { return tool.Output().find("\"event\":\"bytes\"") != std::string::npos; },
                ProcessStation::kPrompt));
  return tool;
}

TEST(EndToEndTool, AfterAKillInfoNamesTheCommandThatRecoversTheDevice) {
  ProcessStation station;
  StartUpdate(station).Send(SIGKILL);
  const Result info = station.Run("firmware-updater", {"info", "firmware.hex"});
  EXPECT_EQ(info.exitCode, kDone);
  EXPECT_TRUE(info.console.ends_with(": firmware-updater recover firmware.hex --usb 1\n"))
      << info.console;
}

TEST(EndToEndTool, AnInterruptWhileItWritesIsExplainedAndTheCommandItNamesBringsTheDeviceBack) {
  ProcessStation station;
  ChildProcess tool = StartUpdate(station);
  tool.Send(SIGINT);
  // Once the result is out, no further signal changes the exit code that it names.
  EXPECT_TRUE(WaitUntil(
      [&] {
        const bool ended = tool.Output().find("\"event\":\"result\"") != std::string::npos;
        if (ended) tool.Send(SIGINT);
        return ended;
      },
      ProcessStation::kPrompt));
  EXPECT_EQ(tool.Wait(ProcessStation::kPrompt), kStopped);
  const std::string console = tool.Output();
  for (const char* text : {"Stopping before the next request; ", "\"ending\":\"stopped\"",
                           "\"device\":\"bootloader-flash-erased\"",
                           "\"next\":\"firmware-updater recover firmware.hex --usb 1\""}) {
    EXPECT_NE(console.find(text), std::string::npos) << text << console;
  }
  EXPECT_FALSE(station.FlashHoldsFirmware());

  const Result result = station.Run("firmware-updater", {"recover", "firmware.hex", "--usb", "1"});
  EXPECT_EQ(result.exitCode, kDone) << result.console;
  EXPECT_TRUE(result.console.ends_with("\nThe device runs the new firmware, verified.\n"))
      << result.console;
  EXPECT_TRUE(station.FlashHoldsFirmware());
  const std::string log = FileText(station.folder / "state/firmware-updater/usb-1_1.log");
  EXPECT_NE(log.find("INFO FirmwareUpdater: Start.\n"), std::string::npos);
}

TEST(EndToEndTool, EachChannelOfAnAdapterIsAnAdapter) {
  ProcessStation station;
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
