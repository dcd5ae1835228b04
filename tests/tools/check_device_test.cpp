// check-device on good devices, which pass every rule and are left as they were, and on bad ones, each of
// which breaks the rule that its row names.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "device/device_rules.h"
#include "tests/tools/tool_station.h"

namespace tavo::tool {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceOptions;
using tavosim::DeviceState;

constexpr const char* kWrite = " --write @firmware.hex";

// The names of the rules with this verdict.
std::string RulesWith(const Json& document, const char* verdict) {
  std::string names;
  for (std::size_t i = 0; i < document["rules"].Size(); ++i) {
    const Json& rule = document["rules"][i];
    const std::string name = rule["name"].Text();
    if (rule["verdict"] == verdict)
      names += (names.empty() ? "" : " ") + name.substr(1, name.size() - 2);
  }
  return names;
}

std::string Through(const tavosim::Family& family) {
  if (family.route == 0) return "";
  return " --through " + std::to_string(family.route >> 8) + "." +
         std::to_string(family.route & 0xFF);
}

TEST(CheckDevice, AGoodDevicePassesAndIsLeftAsItWas) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    for (const DeviceState state : {DeviceState::Application, DeviceState::Bootloader}) {
      for (const char* line : {"--usb 1-4-2", "--ftdi TAVO0001 --echo"}) {
        SCOPED_TRACE(std::string(family.name) + " " + line);
        DeviceOptions options = Options(family.name.data());
        options.start = state;
        ToolStation station(options, true);
        const tavosim::Snapshot before = station.device.Save();
        EXPECT_EQ(station.run(std::string("check-device --json ") + line + Through(family)),
                  ExitCode::Done);
        const Json document = Json::Parse(station.run.Out());
        EXPECT_EQ(RulesWith(document, "fail"), "");
        EXPECT_EQ(RulesWith(document, "hint"), family.name == "legacy" ? "processor" : "");
        const tavosim::Snapshot after = station.device.Save();
        EXPECT_EQ(after.flash, before.flash);
        EXPECT_EQ(after.state, before.state);
        EXPECT_EQ(after.tunnel, before.tunnel);
        EXPECT_EQ(after.label, before.label);
      }
    }
  }
}

TEST(CheckDevice, WithWriteAGoodDevicePassesEveryRuleAndRunsTheNewFirmware) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    SCOPED_TRACE(family.name);
    ToolStation station(Options(family.name.data()));
    EXPECT_EQ(station.run("check-device --json --write @firmware.hex"), ExitCode::Done);
    const Json document = Json::Parse(station.run.Out());
    EXPECT_EQ(RulesWith(document, "fail"), "");
    const bool asksAll = family.bootloaderVersion >= 3;
    EXPECT_EQ(document["notAsked"], asksAll ? 0 : family.bootloaderVersion == 2 ? 3 : 4);
    EXPECT_TRUE(station.UpdatedAndRuns());
    station.run.machine.terminal = true;
    EXPECT_EQ(station.run("check-device --write @firmware.hex"), ExitCode::Done);
    EXPECT_TRUE(station.run.Says("\r\x1B[KWritten: 100 %\n"));
  }
}

TEST(CheckDevice, ABadDeviceBreaksTheRuleThatNamesItsFault) {
  using D = DeviceOptions;
  const struct {
    const char* says;
    const char* fails;
    const char* hints;
    std::vector<std::string> faults;
    void (*change)(D& device) = [](D&) {};
    const char* options = "";
  } rows[] = {
      // clang-format off
      {"version 0", "version", "", {}, [](D& d) { d.family.bootloaderVersion = 0; }},
      {"129 bytes of 16384: more than a frame holds", "block-size", "", {}, [](D& d) { d.family.blockSize = 129; }},
      {"100 bytes of 16384: no whole number", "block-size", "", {}, [](D& d) { d.family.blockSize = 100; }},
      {"padded to 32", "", "block-size", {}, [](D& d) { d.family.blockSize = 24, d.family.applicationKiB = 24; }},
      {"seem to be swapped", "", "processor", {}, [](D& d) { d.family.processorId = 0x48971E; }},
      {"0 bytes instead of 3", "processor", "", {"empty:id=0x121:*"}},
      {"0 bytes instead of 8", "checksums", "", {"empty:id=0x136:*"}},
      {"not answered", "hardware-id", "", {"lose:id=0x122:*"}},
      {"answered after 5.0 s", "application-size", "", {"delay:id=0x132:*:5s"}},
      {"checksum wrong", "hardware-id", "", {"damage:id=0x122:*:3.0"}},
      {"3 bytes came, no answer among them", "hardware-id", "", {"cut:id=0x122:*"}},
      {"0x123 instead of 0x122", "hardware-id", "", {"otherid:id=0x122:*:0x123"}},
      {"6 bytes beside the answer", "answers-once", "", {"repeat:id=0x122:1"}},
      {"2 bytes beside the answer", "answers-once", "", {"after:id=0x120:*:0000"}},
      {"12 bytes came", "checksums silent-to-alive", "", {"withhold:id=0x136:1"}},
      {"not answered", "escape-bytes after-damage", "", {"lose:id=0x120:4", "lose:id=0x120:5"}},
      {"checksum wrong", "sign-of-life version", "", {"damage:*:3.0"}},
      {"not answered", "device-id", "", {"lose:id=0x100:4", "lose:id=0x802:*"}},
      {"not answered", "", "call", {"lose:id=0x100:6"}},
      {"after 33", "bootloader-start", "", {}, [](D& d) { d.bootloaderStartTime = 33s; }},
      {"after 29.", "application-start", "", {}, [](D& d) { d.applicationBootTime = 30s; }},
      {"answered after 5.0 s", "erase", "", {}, [](D& d) { d.eraseTime = 5s; }, kWrite},
      {"the write address advances", "repeated-write", "", {}, [](D& d) { d.writeAddressAdvances = true; }, kWrite},
      {"no longer responds", "incomplete-image", "", {}, [](D& d) { d.checksBeforeStart = false; }, kWrite},
      {"not answered at 0x00004000", "write", "", {"lose:id=0x134:1"}, [](D&) {}, kWrite},
      {"answered after 5.0 s at 0x00004180", "write", "", {"delay:id=0x134:5:5s"}, [](D&) {}, kWrite},
      {"4 bytes beside the answer (write)", "answers-once", "", {"repeat:id=0x134:5"}, [](D&) {}, kWrite},
      {"checksum wrong", "", "software-id", {"damage:id=0x100:5:3.0"}},
      {"\"not reached\"", "write", "repeated-write", {"lose:id=0x134:3"}, [](D&) {}, kWrite},
      {"asked from version 3 on", "", "", {}, [](D& d) { d.family.bootloaderVersion = 2; }},
      {"the device was disconnected", "", "", {"unplug:10"}, [](D&) {}, kWrite},
      {"has not answered PROCESSOR", "processor", "", {"lose:id=0x121:*"}, [](D&) {}, kWrite},
      {"not answered SIZE in full", "application-size", "", {"empty:id=0x132:*"}, [](D&) {}, kWrite},
      {"0 bytes instead of 2", "version", "", {"empty:id=0x120:*"}},
      {"the device has 0x1E9749", "", "", {}, [](D& d) { d.family.processorId = 0x1E9749; }, kWrite},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    DeviceOptions options = Options("plain");
    row.change(options);
    ToolStation station(options, false, row.faults);
    station.TakeFileOf("plain");
    const ExitCode exit = station.run(std::string("check-device --json --usb 1-4-2") + row.options);
    const Json document = Json::Parse(station.run.Out());
    EXPECT_EQ(exit == ExitCode::Done, *row.fails == '\0' && document["notWritten"].IsNull());
    EXPECT_EQ(RulesWith(document, "fail"), row.fails);
    EXPECT_EQ(RulesWith(document, "hint"), row.hints);
    EXPECT_TRUE(station.run.Says(row.says)) << station.run.Out();
  }
}

std::string Plain(const std::string& text) {
  const std::string unmarked = std::regex_replace(text, std::regex("[*`]"), "");
  return std::regex_replace(unmarked, std::regex("[|\\s]+"), " ");
}

TEST(CheckDevice, EverySentenceStandsInTheProtocolsDocument) {
  std::ifstream file(TAVO_SOURCE_DIR "/docs/protocol.md");
  const std::string document = Plain({std::istreambuf_iterator<char>(file), {}});
  for (const Rule& rule : Rules()) {
    EXPECT_NE(document.find(Plain(rule.sentence)), std::string::npos) << rule.sentence;
  }
}

}  // namespace
}  // namespace tavo::tool
