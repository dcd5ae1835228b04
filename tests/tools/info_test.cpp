// What info learns from the simulated device, that it leaves the device as it was, and which device
// it chooses.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "inquiry.h"
#include "session.h"
#include "target_choice.h"
#include "testbench/fake_d2xx.h"
#include "testbench/fake_libusb.h"
#include "testbench/station.h"

namespace tavo::tool {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using tavosim::DeviceState;
using test::Station;

ExitCode RunInfo(const Machine& machine, const std::string& arguments) {
  CLI::App app;
  ExitCode exit = ExitCode::Usage;
  AddInfoCommand(app, machine, exit);
  try {
    app.parse("info " + arguments, false);
  } catch (const CLI::ParseError&) {
    return ExitCode::Usage;
  }
  return exit;
}

// A machine with one simulated device.
struct Desk {
  explicit Desk(const tavosim::DeviceOptions& options, bool echo = false,
                const std::vector<std::string>& faults = {})
      : station(options, echo, faults) {}

  Station station;
  std::ostringstream out, err;
  Machine machine{station.platform, station.usb, station.d2xx, out, err};

  ExitCode Info(const std::string& arguments) { return RunInfo(machine, arguments); }
};

tavosim::DeviceOptions OptionsOf(const char* family, DeviceState start) {
  tavosim::DeviceOptions options = tavosim::OptionsFor(*tavosim::FindFamily(family));
  options.start = start;
  options.openTunnel = options.family.route;
  return options;
}

std::string Hex(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%.*X", digits, value);
  return text;
}

void ExpectUntouched(const Station& station, const tavosim::Snapshot& before) {
  const tavosim::Snapshot after = station.device.Save();
  EXPECT_EQ(after.flash, before.flash);
  EXPECT_EQ(after.tunnel, before.tunnel);
  EXPECT_EQ(after.state, before.state);
  EXPECT_EQ(after.label, before.label);
  static const std::set<std::string> kAllowed{
      "0x120", "0x121",       "0x122",       "0x132",       "1B 1B 1B",
      "0x802", "0x100 EB 00", "0x100 BB 0A", "0x100 BB 02", "0x180 BB 02"};
  for (const tavosim::Exchange& exchange : station.device.Journal()) {
    EXPECT_TRUE(kAllowed.contains(Describe(exchange))) << Describe(exchange);
  }
}

TEST(Info, TellsEveryFamilyInEitherStateAndLeavesItThere) {
  for (const tavosim::Family& family : tavosim::kFamilies) {
    for (const DeviceState state : {DeviceState::Application, DeviceState::Bootloader}) {
      const bool runs = state == DeviceState::Application;
      SCOPED_TRACE(std::string(family.name) + (runs ? " runs" : " in its bootloader"));
      Desk desk(OptionsOf(family.name.data(), state));
      const tavosim::Snapshot before = desk.station.device.Save();
      EXPECT_EQ(desk.Info("--usb 1-4-2 --json"), ExitCode::Done);
      const json document = json::parse(desk.out.str());
      EXPECT_EQ(document["state"], runs ? "application" : "bootloader");
      ExpectUntouched(desk.station, before);
      if (runs) {
        EXPECT_EQ(document["softwareId"], Hex(family.softwareId, 4));
        EXPECT_EQ(document["deviceId"], Hex(family.deviceId, 4));
        EXPECT_EQ(document["tunnel"]["open"], family.route != 0);
        EXPECT_TRUE(document["bootloader"].is_null());
        continue;
      }
      EXPECT_EQ(document["bootloader"]["version"], family.bootloaderVersion);
      EXPECT_EQ(document["bootloader"]["blockSize"], family.blockSize);
      EXPECT_EQ(document["processor"]["id"], Hex(family.processorId, 6));
      EXPECT_EQ(document["hardwareId"]["id"], Hex(family.hardwareId, 4));
      EXPECT_EQ(document["applicationKiB"], family.applicationKiB);
      EXPECT_EQ(document["tunnel"].is_null(), family.route == 0);
    }
  }
}

TEST(Info, TheScreenHoldsTheFactsAndNothingOfTheLibrary) {
  Desk desk(OptionsOf("plain", DeviceState::Bootloader), true);
  EXPECT_EQ(desk.Info("--ftdi TAVO0001 --echo"), ExitCode::Done);
  EXPECT_EQ(desk.out.str(),
            "device       --ftdi TAVO0001 --echo\n"
            "bootloader   version 3, blocks of 128 bytes\n"
            "processor    0x1E9748 (MCU-ID 0x100)\n"
            "application  up to 16 KiB\n"
            "hardware id  0x8410 (Serie 8, Type 4, Module 1, Variant 0)\n"
            "It sits in its bootloader: firmware-updater recover FILE --ftdi TAVO0001 --echo\n");
  EXPECT_EQ(desk.err.str(), "");
  EXPECT_EQ(desk.station.platform.Console(), "");
  EXPECT_EQ(desk.station.Log(), "");
  EXPECT_EQ(desk.station.usb.OpenHandles(), 0);
}

TEST(Info, AMasterAnsweringForItsDeviceIsNotTakenForAnApplication) {
  auto options = OptionsOf("tunnel", DeviceState::Bootloader);
  options.openTunnel = 0;
  Desk desk(options);
  EXPECT_EQ(desk.Info("--json"), ExitCode::Done);
  EXPECT_EQ(json::parse(desk.out.str())["state"], "hidden");
  EXPECT_EQ(desk.station.device.OpenTunnel(), 0);
}

TEST(Info, ASilentDeviceEndsInTimeWithItsStateUnknown) {
  Desk desk(OptionsOf("plain", DeviceState::Application), false, {"lose:*"});
  EXPECT_EQ(desk.Info("--json"), ExitCode::FailedUnknown);
  EXPECT_EQ(json::parse(desk.out.str())["state"], "silent");
  EXPECT_NE(desk.err.str().find("hint: "), std::string::npos);
  EXPECT_LT(desk.station.platform.MonotonicNow(), 30s);
}

TEST(Info, ADeviceThatIsPulledOutEndsInTime) {
  Desk desk(OptionsOf("plain", DeviceState::Application), false, {"unplug:2"});
  desk.Info("");
  EXPECT_LT(desk.station.platform.MonotonicNow(), 40s);
}

TEST(Inquiry, ClosesATunnelWhetherOrNotTheMasterSaysSo) {
  for (const bool answers : {true, false}) {
    auto options = OptionsOf("tunnel", DeviceState::Application);
    options.answersCloseTunnel = answers;
    Desk desk(options);
    Session session(desk.machine, desk.station.platform);
    ASSERT_EQ(session.Open({TransportKind::Usb, Station::kPort}), "");
    Inquiry inquiry(session.Transport(), desk.station.platform);
    EXPECT_EQ(inquiry.OpenTunnel(), options.family.route);
    const auto start = desk.station.platform.MonotonicNow();
    inquiry.CloseTunnel();
    EXPECT_GE(desk.station.platform.MonotonicNow() - start, 5s);
    EXPECT_LT(desk.station.platform.MonotonicNow() - start, 10s);
    EXPECT_EQ(inquiry.OpenTunnel(), 0);
  }
}

TEST(Inquiry, TheOtherValueForNoTunnelIsNone) {
  auto options = OptionsOf("tunnel", DeviceState::Application);
  options.openTunnel = 0x1010;
  Desk desk(options);
  Session session(desk.machine, desk.station.platform);
  ASSERT_EQ(session.Open({TransportKind::Usb, Station::kPort}), "");
  Inquiry inquiry(session.Transport(), desk.station.platform);
  EXPECT_EQ(inquiry.OpenTunnel(), 0);
}

struct ChoiceCase {
  const char* what;
  TargetOptionsValues named;
  std::vector<test::Bytes> ports;
  std::string chosen;  // empty: refused
  ExitCode exit = ExitCode::Done;
  const char* says = "";  // the complaint tells this
};

TEST(TargetChoice, TakesWhatIsNamedOrTheOnlyUsbDevice) {
  const ChoiceCase cases[] = {
      {"the only one", {}, {{1}}, "--usb 1"},
      {"several", {}, {{1}, {4, 2}}, "", ExitCode::Usage, "--usb 4-2 "},
      {"one that cannot be named",
       {},
       {{}},
       "",
       ExitCode::NoDevice,
       "the USB device cannot be used"},
      {"an adapter alone", {}, {}, "", ExitCode::NoDevice, "only when it is named"},
      {"a named port", {.usbPort = "4-2"}, {{1}, {4, 2}}, "--usb 4-2"},
      {"a wrong port", {.usbPort = "9"}, {{1}}, "", ExitCode::NoDevice, "--usb 1 "},
      {"twins", {.usbPort = "1"}, {{1}, {1}}, "", ExitCode::NoDevice, "same port path"},
      {"a named adapter",
       {.ftdiSerial = "A1", .baudRate = 115200, .echo = true},
       {{1}},
       "--ftdi A1 --baud 115200 --echo"},
      {"a wrong adapter", {.ftdiSerial = "A2"}, {}, "", ExitCode::NoDevice, "--ftdi A1 "},
  };
  for (const ChoiceCase& row : cases) {
    SCOPED_TRACE(row.what);
    test::VirtualPlatform platform;
    test::FakeLibUsb usb;
    test::FakeD2xx adapters;
    std::ostringstream out, err;
    for (const test::Bytes& ports : row.ports) usb.devices.push_back({.ports = ports});
    adapters.adapters = {{"A1", "x"}};
    const TargetChoice choice = ChooseTarget({platform, usb, adapters, out, err}, row.named);
    EXPECT_EQ(choice.target ? TargetOptions(*choice.target) : "", row.chosen);
    EXPECT_EQ(choice.exit, row.exit);
    EXPECT_NE(err.str().find(row.says), std::string::npos) << err.str();
    EXPECT_EQ(err.str().empty(), !row.chosen.empty());
  }
}

TEST(TargetChoice, OptionsThatDoNotGoTogetherAreRefused) {
  Desk desk(OptionsOf("plain", DeviceState::Application));
  for (const char* const arguments :
       {"--usb 1-4-2 --ftdi TAVO0001", "--baud 9600", "--echo", "--usb \"\"", "--ftdi \"\"",
        "--ftdi TAVO0001 --baud 0", "--ftdi TAVO0001 --baud fast"}) {
    EXPECT_EQ(desk.Info(arguments), ExitCode::Usage) << arguments;
  }
  EXPECT_TRUE(desk.station.Requests().empty());
}

}  // namespace
}  // namespace tavo::tool
