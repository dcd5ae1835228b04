// What info learns from the simulated device, that it leaves the device as it was, and which device
// it chooses.
#include <gtest/gtest.h>

#include <set>

#include "device/inquiry.h"
#include "device/session.h"
#include "device/target_choice.h"
#include "tests/tools/tool_station.h"

#ifndef _WIN32
#include "tests/support/child_process.h"
#endif

namespace tavo::tool {
namespace {

using namespace std::chrono_literals;
using tavosim::DeviceState;
using test::Station;

constexpr DeviceState kRuns = DeviceState::Application;
constexpr DeviceState kWaits = DeviceState::Bootloader;

tavosim::DeviceOptions OptionsOf(const char* family, DeviceState start) {
  tavosim::DeviceOptions options = Options(family);
  options.start = start;
  options.openTunnel = options.family.route;
  return options;
}

void ExpectUntouched(const Station& station, const tavosim::Snapshot& before) {
  const tavosim::Snapshot after = station.device.Save();
  EXPECT_EQ(after.flash, before.flash);
  EXPECT_EQ(after.tunnel, before.tunnel);
  EXPECT_EQ(after.state, before.state);
  EXPECT_EQ(after.label, before.label);
  static const std::set<std::string> kAllowed{
      "0x120",       "0x121",       "0x122",       "0x132",       "1B 1B 1B", "0x802",
      "0x100 EB 00", "0x100 BB 0A", "0x100 BB 02", "0x180 BB 02", "0x100 00"};
  for (const tavosim::Exchange& exchange : station.device.Journal()) {
    EXPECT_TRUE(kAllowed.contains(Describe(exchange))) << Describe(exchange);
  }
}

TEST(Info, TellsEveryFamilyInEitherStateAndLeavesItThere) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    for (const DeviceState state : {DeviceState::Application, DeviceState::Bootloader}) {
      const bool runs = state == DeviceState::Application;
      SCOPED_TRACE(std::string(family.name) + (runs ? " runs" : " in its bootloader"));
      ToolStation station(OptionsOf(family.name.data(), state));
      const tavosim::Snapshot before = station.device.Save();
      EXPECT_EQ(station.run("info --usb 1-4-2 --json"), ExitCode::Done);
      const Json document = Json::Parse(station.run.Out());
      EXPECT_EQ(document["state"], runs ? "application" : "bootloader");
      ExpectUntouched(station, before);
      if (runs) {
        EXPECT_EQ(document["softwareId"], family.softwareId);
        EXPECT_EQ(document["deviceId"], family.deviceId);
        EXPECT_EQ(document["tunnel"]["open"], family.route != 0);
        EXPECT_TRUE(family.route == 0 || document["tunnel"]["master"] == family.route >> 8);
        EXPECT_TRUE(document["bootloaderVersion"].IsNull());
        continue;
      }
      EXPECT_EQ(document["bootloaderVersion"], family.bootloaderVersion);
      EXPECT_EQ(document["blockSize"], family.blockSize);
      EXPECT_EQ(document["processorId"], family.processorId);
      EXPECT_EQ(document["hardwareId"], family.hardwareId);
      EXPECT_EQ(document["hardware"]["serie"], family.hardwareId >> 12);
      EXPECT_EQ(document["applicationKiB"], family.applicationKiB);
      EXPECT_EQ(document["tunnel"].IsNull(), family.route == 0);
    }
  }
}

TEST(Info, InspectSaysWhetherTheFileFitsTheDevice) {
  const struct {
    const char* file;
    DeviceState state;
    const char* fault;
    const char* says;
    ExitCode exit;
  } kRows[] = {
      {"plain", kWaits, "lose:99", "The file        fits\n", ExitCode::Done},
      {"plain", kRuns, "lose:99", "fits, as far as a running application answers", ExitCode::Done},
      {"plain", kRuns, "lose:*", "Device --usb 1-4-2 does not respond", ExitCode::FailedUnknown},
      {"variant", kWaits, "lose:99", "does not fit: the file is for ",
       ExitCode::FailedInBootloader},
      {"gateway", kRuns, "lose:99", "does not fit: the file is for a device behind",
       ExitCode::FailedRuns},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.says);
    ToolStation station(OptionsOf("plain", row.state), false, {row.fault});
    station.TakeFileOf(row.file);
    EXPECT_EQ(station.run("inspect @firmware.hex --usb 1-4-2"), row.exit) << station.run.Err();
    EXPECT_TRUE(station.run.Says(row.says)) << station.run.Out();
  }
}

TEST(Info, VerifyLeavesTheDeviceAsItWasAndSaysWhereItDoesNot) {
  const struct {
    const char* family;
    DeviceState found;
    bool intact;
    std::uint8_t version;
    const char* fault;
    const char* verdict;
    ExitCode exit;
    DeviceState left;
  } kRows[] = {
      {"plain", kRuns, true, 3, "lose:99", "passed", ExitCode::Done, kRuns},
      {"plain", kWaits, true, 3, "lose:99", "passed", ExitCode::Done, kWaits},
      {"plain", kWaits, false, 3, "lose:99", "failed", ExitCode::FailedInBootloader, kWaits},
      {"plain", kRuns, true, 2, "lose:99", "not-supported", ExitCode::FailedRuns, kRuns},
      {"plain", kRuns, true, 3, "lose:id=0x136:*", "no-answer", ExitCode::FailedRuns, kRuns},
      {"plain", kRuns, true, 3, "powercut:id=0x100:5", "no-bootloader", ExitCode::FailedRuns,
       kRuns},
      {"plain", kRuns, true, 3, "powercut:id=0x12F:1:bootloader", "passed",
       ExitCode::FailedInBootloader, kWaits},
      {"gateway", kRuns, true, 3, "lose:99", "passed", ExitCode::Done, kRuns},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.fault) + " " + row.verdict);
    tavosim::DeviceOptions options = Options(row.family);
    options.start = row.found;
    options.applicationIntact = row.intact;
    options.family.bootloaderVersion = row.version;
    ToolStation station(options, false, {row.fault});
    const tavosim::Snapshot before = station.device.Save();
    EXPECT_EQ(station.run("info @firmware.hex --usb 1-4-2 --json --verify"), row.exit);
    const Json document = Json::Parse(station.run.Out());
    EXPECT_EQ(document["verification"]["verdict"], row.verdict) << station.run.Err();
    EXPECT_EQ(document["state"], row.left == kRuns ? "application" : "bootloader");
    const tavosim::Snapshot after = station.device.Save();
    EXPECT_EQ(after.state, row.left);
    EXPECT_EQ(after.flash, before.flash);
    EXPECT_EQ(after.tunnel, before.tunnel);
  }
}

TEST(Info, TheScreenHoldsTheFactsAndNothingOfTheLibrary) {
  ToolStation station(OptionsOf("plain", DeviceState::Bootloader), true);
  EXPECT_EQ(station.run("info --ftdi TAVO0001 --echo"), ExitCode::Done);
  EXPECT_EQ(station.run.Out(),
            "device       --ftdi TAVO0001 --echo\n"
            "bootloader   version 3, blocks of 128 bytes\n"
            "processor    0x1E9748 (MCU-ID 0x100)\n"
            "application  up to 16 KiB\n"
            "hardware id  0x8410 (Serie 8, Type 4, Module 1, Variant 0)\n"
            "It is in its bootloader. To recover it, run this with the update file for it: "
            "firmware-updater recover FILE --ftdi TAVO0001 --echo\n");
  EXPECT_EQ(station.run.Err(), "Waiting up to 4 s for an answer from a master module.\n");
  EXPECT_EQ(station.platform.Console(), "");
  EXPECT_EQ(station.Log(), "");
  EXPECT_EQ(station.run("info --ftdi TAVO0001"), ExitCode::Usage);
  EXPECT_TRUE(station.run.Complains("; run: firmware-updater info --ftdi TAVO0001 --echo\n"));
}

TEST(Info, LooksBehindAMasterAndClosesTheTunnelAgain) {
  for (const std::string way : {"--through 4.1", "@firmware.hex"}) {
    auto options = OptionsOf("tunnel", DeviceState::Bootloader);
    options.openTunnel = 0;
    ToolStation station(options);
    EXPECT_EQ(station.run("info --json " + way), ExitCode::Done) << station.run.Err();
    const Json document = Json::Parse(station.run.Out());
    EXPECT_EQ(document["state"], "bootloader");
    EXPECT_EQ(document["hardwareId"], options.family.hardwareId);
    EXPECT_EQ(station.device.OpenTunnel(), 0);
  }
}

TEST(Info, ComparesTheFileWithTheAnswers) {
  for (const auto& [file, next] : {std::pair{"plain", "firmware.hex --usb"},
                                   {"legacy", "FILE --usb"},
                                   {"drive", "FILE --usb"}}) {
    ToolStation station(OptionsOf("plain", DeviceState::Bootloader));
    station.TakeFileOf(file);
    EXPECT_EQ(station.run("info @firmware.hex"), ExitCode::Done);
    EXPECT_TRUE(station.run.Says(next)) << file << station.run.Out();
  }
}

TEST(Info, WithoutAnAnswerItEndsInTimeAndNamesTheReason) {
  const std::tuple<const char*, const char*, const char*> kRows[] = {
      {"lose:*", "does not respond", "{}"},
      {"unplug:1", "does not respond", "{}"},
      {"damage:*:0.5", "no answer among them: no frame begins with them (32)",
       R"({"noHeader":32,"tooShort":2})"},
      {"damage:*:2.7", "no answer among them: checksum wrong", R"({"checksum":34})"},
      {"otherid:*:0x001",
       "id not awaited: 0x001 instead of 0x100, which is the same with its bytes swapped",
       R"({"unawaited":34})"}};
  for (const auto& [fault, complaint, refused] : kRows) {
    ToolStation station(OptionsOf("plain", DeviceState::Application), false, {fault});
    EXPECT_EQ(station.run("info --json"), ExitCode::FailedUnknown);
    EXPECT_EQ(Json::Parse(station.run.Out())["state"], "silent");
    EXPECT_EQ(Json::Parse(station.run.Out())["refused"].Text(), refused);
    EXPECT_TRUE(station.run.Complains(complaint)) << station.run.Err();
    EXPECT_TRUE(station.run.Complains("hint: "));
    EXPECT_LT(station.platform.MonotonicNow(), 40s);
  }
}

TEST(Inquiry, ClosesATunnelWhetherOrNotTheMasterSaysSo) {
  for (const auto& [answers, open, told] :
       {std::tuple{true, 0x0401, 0x0401}, {false, 0x0401, 0x0401}, {true, 0x1010, 0}}) {
    auto options = Options("tunnel");
    options.answersCloseTunnel = answers;
    options.openTunnel = static_cast<std::uint16_t>(open);
    ToolStation station(options);
    Session session(station.run.machine, station.platform);
    session.Open({TransportKind::Usb, Station::kPort});
    Inquiry inquiry(session.Transport(), station.platform);
    EXPECT_EQ(inquiry.OpenTunnel(), told) << "16, 16 means none";
    const auto start = station.platform.MonotonicNow();
    inquiry.CloseTunnel();
    EXPECT_GE(station.platform.MonotonicNow() - start, 5s);
    EXPECT_LT(station.platform.MonotonicNow() - start, 10s);
    EXPECT_EQ(inquiry.OpenTunnel(), 0);
  }
}

TEST(TargetChoice, TakesTheSelectedOrTheOnlyUsbDevice) {
  const struct {
    const char* what;
    TargetOptionsValues named;
    std::vector<test::Bytes> ports;
    std::string chosen;  // empty: refused
    const char* name = "";
    const char* says = "";
  } cases[] = {
      {"the only one", {}, {{1}}, "--usb 1"},
      {"several", {}, {{1}, {4, 2}}, "", "several-devices", "--usb 1, --usb 4-2"},
      {"several, one usable", {}, {{1}, {4, 2}, {4, 2}}, "", "several-devices", "--usb 1"},
      {"several, none usable", {}, {{4, 2}, {4, 2}}, "", "unusable-device", "none of the USB"},
      {"one without a name", {}, {{}}, "", "unusable-device", "the USB device cannot be used"},
      {"an adapter alone", {}, {}, "", "no-device", "only when it is selected: --ftdi A1"},
      {"a named port", {.usbPort = "4-2"}, {{1}, {4, 2}}, "--usb 4-2"},
      {"a kernel's name", {.usbPort = "1-4.2"}, {{1}, {4, 2}}, "--usb 4-2"},
      {"a port path before a kernel's name", {.usbPort = "1-2"}, {{2}, {1, 2}}, "--usb 1-2"},
      {"a wrong port", {.usbPort = "9"}, {{1}}, "", "no-device", "--usb 1, --ftdi A1"},
      {"a port named as an adapter", {.usbPort = "A1"}, {{1}}, "", "no-device", "--ftdi A1"},
      {"twins", {.usbPort = "1"}, {{1}, {1}}, "", "unusable-device", "same port path"},
      {"a named adapter",
       {.ftdiSerial = "A1", .baudRate = 115200, .echo = true},
       {{1}},
       "--ftdi A1 --baud 115200 --echo"},
      {"a wrong adapter", {.ftdiSerial = "A2"}, {}, "", "no-device", "--ftdi A1"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    ToolMachine station;
    for (const test::Bytes& ports : row.ports) station.usb.devices.push_back({.ports = ports});
    station.adapters.adapters = {{"A1", "x"}};
    try {
      EXPECT_EQ(TargetOptions(ChooseTarget(station.run.machine, row.named)), row.chosen);
    } catch (const Refusal& refusal) {
      EXPECT_EQ(row.chosen, "") << refusal.text;
      EXPECT_EQ(refusal.name, row.name);
      EXPECT_NE((refusal.text + refusal.hint).find(row.says), std::string::npos) << refusal.hint;
    }
  }
}

#ifndef _WIN32
// A file or a serial number may be called anything, and what is recommended must work when it is
// copied, out of JSON too.
TEST(ShellWord, IsOneLineOfTextThatAShellReadsBack) {
  const test::TemporaryFolder folder;
  for (const std::string name :
       {"fw.hex", "my fw.hex", "it's \"q\".hex", "$(x)`y`!.hex", "~a", "#b", "\xC3\xBC.hex",
        "\xFF\xFE.hex", "a\nb\033[31m.hex", "\xC3", ""}) {
    const std::string word = ShellWord(name);
    EXPECT_EQ(word.find_first_of("\n\033"), std::string::npos);
    EXPECT_EQ(Json::Parse(Json(word).Text()), word) << "it is UTF-8";
    test::ChildProcess shell(folder.Path(), {"bash", "-c", "printf %s " + word},
                             {"PATH=/usr/bin:/bin"}, "output.txt");
    EXPECT_EQ(shell.Wait(20s), 0);
    EXPECT_EQ(shell.Output(), name) << word;
  }
}
#endif

// Double quotes serve cmd and PowerShell alike; only PowerShell reads single quotes.
TEST(ShellWord, OnWindowsServesCmdAndPowerShell) {
  const std::pair<const char*, const char*> rows[] = {
      {R"(C:\fw\a-1.hex)", R"(C:\fw\a-1.hex)"},
      {R"(C:\my fw\)", R"("C:\my fw\\")"},
      {"50%,@{x}&;'!.hex", R"("50%,@{x}&;'!.hex")"},
      {"\xC3\xBC.hex", "\"\xC3\xBC.hex\""},
      {"$x it's.hex", "'$x it''s.hex'"},
      {"\xE2\x80\x9Cq\xE2\x80\x9D \xE2\x80\x99",
       "'\xE2\x80\x9Cq\xE2\x80\x9D \xE2\x80\x99\xE2\x80\x99'"},
      {"", R"("")"}};
  for (const auto& [text, word] : rows) EXPECT_EQ(ShellWord(text, System::Windows), word);
}

}  // namespace
}  // namespace tavo::tool
