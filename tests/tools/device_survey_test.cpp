// list finds every device, reports why one cannot be used, and changes nothing.
#include "device/device_survey.h"

#include <gtest/gtest.h>

#include "tests/tools/tool_station.h"

namespace tavo::tool {
namespace {

using namespace std::chrono_literals;
using test::FakeAdapter;
using test::FakeUsbDevice;

struct DeviceSurvey : testing::Test, ToolMachine {};

// "4-2 ok, - no-port-path"
std::string Summary(const std::vector<FoundDevice>& devices) {
  std::string text;
  for (const FoundDevice& device : devices) {
    text += (text.empty() ? "" : ", ") + (device.address.empty() ? "-" : device.address);
    for (const Obstacle& obstacle : device.obstacles) text += " " + obstacle.name;
    if (device.IsUsable()) text += " ok";
  }
  return text;
}

struct ObstacleCase {
  const char* what;
  std::vector<FakeUsbDevice> devices;
  std::map<std::string, int> results;
  std::vector<FakeAdapter> adapters;
  std::string found;
};

const FakeUsbDevice kDevice{.ports = {4, 2}};
const FakeUsbDevice kTwin{.ports = {4, 2}, .bus = 3};
const FakeUsbDevice kFtdiChip{.vendor = 0x0403, .product = 0x6001, .ports = {5}};

// clang-format off
const ObstacleCase kObstacleCases[] = {
    {"nothing", {}, {}, {}, ""},
    {"other devices", {{.product = 0x2403, .ports = {1}}, {.vendor = 1, .ports = {1}}}, {}, {}, ""},
    {"both kinds", {kDevice}, {}, {{"A1", "x"}}, "4-2 ok, A1 ok"},
    {"a kernel driver", {kDevice},
     {{"KernelDriverActive 1", 1}, {"ClaimInterface 1", LIBUSB_ERROR_BUSY}}, {}, "4-2 ok"},
    {"not permitted", {kDevice}, {{"Open 4 2", LIBUSB_ERROR_ACCESS}}, {},
     kSystem == System::Windows ? "4-2 in-use" : "4-2 no-permission"},
    {"held: opening", {kDevice}, {{"Open 4 2", LIBUSB_ERROR_BUSY}}, {}, "4-2 in-use"},
    {"held: claiming", {kDevice}, {{"ClaimInterface 1", LIBUSB_ERROR_BUSY}}, {}, "4-2 in-use"},
    {"no driver", {kDevice}, {{"Open 4 2", LIBUSB_ERROR_NOT_SUPPORTED}}, {}, "4-2 no-driver"},
    {"broken", {kDevice}, {{"Open 4 2", LIBUSB_ERROR_IO}}, {}, "4-2 cannot-open"},
    {"just gone", {kDevice}, {{"Open 4 2", LIBUSB_ERROR_NO_DEVICE}}, {}, ""},
    {"no ports", {{.ports = {}}, {.ports = {}}}, {}, {}, "- no-port-path, - no-port-path"},
    {"same port", {kDevice, kTwin}, {}, {}, "4-2 ambiguous-port, 4-2 ambiguous-port"},
    {"no serial number", {}, {}, {{"", "x"}, {"A2", "x"}}, "- no-serial-number, A2 ok"},
    {"same serial number", {}, {}, {{"A1", "x"}, {"A1", "y"}},
     "A1 ambiguous-serial-number, A1 ambiguous-serial-number"},
    {"a silent adapter, not permitted", {kFtdiChip}, {{"Open 5", LIBUSB_ERROR_ACCESS}}, {{"", ""}},
     kSystem == System::Windows ? "- in-use" : "- no-permission"},
    {"an adapter without its driver", {kFtdiChip}, {}, {},
     kSystem == System::Windows ? "- no-driver" : ""},
    {"a held adapter", {kFtdiChip}, {{"ClaimInterface 0", LIBUSB_ERROR_BUSY}}, {{"A1", "x"}},
     "A1 in-use"},
    {"a second channel", {{.vendor = 0x0403, .product = 0x6010, .ports = {5}}},
     {{"ClaimInterface 1", LIBUSB_ERROR_BUSY}}, {{"A1A", "x"}, {"A1B", "x"}}, "A1A ok, A1B in-use"},
    {"a chip that is no adapter yet", {kFtdiChip, kFtdiChip}, {{"Open 5", LIBUSB_ERROR_ACCESS}},
     {{"A1", "x"}}, "A1 ok"},
};
// clang-format on

TEST(DeviceSurveyTable, EveryObstacleIsFoundAndNothingIsTouched) {
  for (const ObstacleCase& row : kObstacleCases) {
    SCOPED_TRACE(row.what);
    ToolMachine station;
    station.usb.devices = row.devices;
    station.usb.results = row.results;
    station.adapters.adapters = row.adapters;
    EXPECT_EQ(Summary(SurveyDevices(station.run.machine)), row.found);
    for (const std::string& call : station.usb.calls) {
      EXPECT_FALSE(call.starts_with("Detach") || call.starts_with("Control")) << call;
    }
    EXPECT_TRUE(station.usb.sent.empty());
    for (const std::string& call : station.adapters.calls) {
      EXPECT_TRUE(call.ends_with("DeviceInfoList")) << call;
    }
    EXPECT_EQ(station.platform.Console(), "");
  }
}

TEST_F(DeviceSurvey, ListSaysWhatAddressesADeviceAndWhatStandsInTheWay) {
  usb.devices = {{.ports = {4, 2}}, {.ports = {1}}};
  usb.results["Open 1"] = LIBUSB_ERROR_BUSY;
  adapters.adapters = {{"A\x1B\xB5 1", "It's\na\x9B b"}};
  EXPECT_EQ(run("list"), ExitCode::Done);
  const std::string adapter = "--ftdi " + ShellWord("A\x1B\xB5 1");
  const std::string indent(adapter.size() + 2, ' ');
  EXPECT_EQ(run.Out(), "--usb 4-2" + indent.substr(9) +
                           "USB device, 03eb:2404, bus 1\n"
                           "--usb 1" +
                           indent.substr(7) + "USB device, 03eb:2404, bus 1\n" + indent +
                           "cannot be used: another program holds it (in-use)\n" + indent +
                           "hint: end the program that uses it, then try again\n" + adapter +
                           "  It's?a? b\n");
  EXPECT_EQ(run.Err(), "");
  run.machine.terminal = true;
  run.machine.width = kSystem == System::Windows ? [] { return 50; } : [] { return 60; };
  EXPECT_EQ(run("list"), ExitCode::Done);
  EXPECT_TRUE(run.Says(indent + "cannot be used: another program\n" + indent + "holds it (in-use)"))
      << run.Out();
}

TEST_F(DeviceSurvey, AnUpdateOpensItsDeviceAloneAndOneThatCannotBeOpenedEndsAsOneThatIsMissing) {
  run.Write("firmware.hex",
            tavosim::HexText(tavosim::BuildFirmware(tavosim::RecipeFor(tavosim::kFamilies[0]))));
  usb.devices = {{.ports = {1}}, {.ports = {2}}};
  for (const int error : {LIBUSB_ERROR_BUSY, LIBUSB_ERROR_ACCESS}) {
    usb.results["Open 1"] = error;
    EXPECT_EQ(run("update @firmware.hex --usb 1 --log @tool.log"), ExitCode::NoDevice) << error;
  }
  EXPECT_EQ(std::ranges::count(usb.calls, "Open 2"), 0);  // another update may be about to
}

TEST_F(DeviceSurvey, JsonIsOneDocumentWhateverAnAdapterCallsItself) {
  usb.devices = {kDevice, kTwin};
  adapters.adapters = {{"\xFF\x01", "\xC3"}};
  EXPECT_EQ(run("list --json"), ExitCode::Done);
  const Json document = Json::Parse(run.Out());
  EXPECT_EQ(document["version"], 1);
  ASSERT_EQ(document["devices"].Size(), 3u);
  EXPECT_EQ(document["devices"][1]["obstacles"][0]["name"], "ambiguous-port");
  EXPECT_EQ(document["devices"][2]["kind"], "ftdi");
  EXPECT_EQ(document["devices"][2]["usable"], true);
}

TEST(DeviceSurveyTable, AUsbDeviceIsShownWithItsOwnTexts) {
  ToolStation station(Options("plain"));
  EXPECT_EQ(station.run("list"), ExitCode::Done);
  EXPECT_TRUE(station.run.Says("Control Module, serial number 1, 03eb:2404, bus 1\n"))
      << station.run.Out();
  EXPECT_EQ(station.run("list --json"), ExitCode::Done);
  const Json usb = Json::Parse(station.run.Out())["devices"][0]["usb"];
  EXPECT_EQ(usb["serialNumber"], "1");
  EXPECT_EQ(usb["vendorId"], 0x03EB);
}

TEST_F(DeviceSurvey, NothingFoundTellsWhatWasLookedForAndWhy) {
  usb.results["Init"] = LIBUSB_ERROR_OTHER;
  EXPECT_EQ(run("list"), ExitCode::NoDevice);
  EXPECT_EQ(run.Out(), "");
  EXPECT_TRUE(run.Complains("LIBUSB_ERROR_OTHER")) << run.Err();
  EXPECT_TRUE(run.Complains("looked for USB devices 03eb:2404 and FTDI adapters"));
  EXPECT_EQ(run("list --json"), ExitCode::NoDevice);
  EXPECT_EQ(Json::Parse(run.Out())["devices"].Size(), 0u);
  EXPECT_EQ(run("info"), ExitCode::NoDevice);
  EXPECT_TRUE(run.Complains("LIBUSB_ERROR_OTHER; no device found")) << run.Err();
}

TEST_F(DeviceSurvey, WaitEndsWithAUsableDeviceOrWithItsTime) {
  for (const char* const none : {"=-1", "=nan", "=inf", "=86401", "=ten", " \"\""}) {
    EXPECT_EQ(run(std::string("list --wait") + none), ExitCode::Usage) << none;
  }
  EXPECT_TRUE(usb.calls.empty());
  usb.devices = {kDevice};
  usb.results["Open 4 2"] = LIBUSB_ERROR_BUSY;
  EXPECT_EQ(run("list --wait 0.5"), ExitCode::NoDevice);
  EXPECT_EQ(platform.MonotonicNow(), 500ms);
  ToolStation late(Options("plain"));
  late.device.Unplug(0ms, 2000ms);
  EXPECT_EQ(late.run("list --wait 1.25"), ExitCode::NoDevice);
  EXPECT_EQ(late.platform.MonotonicNow(), 1250ms);
  EXPECT_EQ(late.run("list --wait 1.5"), ExitCode::Done);
  EXPECT_EQ(late.platform.MonotonicNow(), 2050ms);
}

TEST(AwaitedDevice, IsUpdatedOnceItIsConnectedUnlessAnObstacleTheTimeOrCtrlCEndsTheWait) {
  const struct {
    std::chrono::seconds absent;
    int openResult;
    const char* wait;
    ExitCode exit;
    std::chrono::milliseconds longest;
  } kRows[] = {
      {4s, 0, " --wait=10", ExitCode::Done, 9s},
      {60s, 0, " --wait=10", ExitCode::NoDevice, 10s},
      {1s, LIBUSB_ERROR_ACCESS, " --wait=10", ExitCode::NoDevice, 3200ms},
#ifndef _WIN32
      {86000s, 0, " --wait", ExitCode::Stopped, 86000s},  // by the signal
#endif
  };
#ifndef _WIN32
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
#endif
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.openResult);
    ToolStation station(Options("plain"));
    station.device.Unplug(test::SimNow(station.platform), row.absent);
    if (row.openResult != 0) station.usb.results["Open 1 4 2"] = row.openResult;
    if (row.exit == ExitCode::Stopped) std::ignore = station.run.Signal(SIGTERM, false);
    EXPECT_EQ(station.Update(row.wait), row.exit) << station.run.Err();
    EXPECT_TRUE(station.run.Says("Waiting for --usb 1-4-2; Ctrl-C ends the wait.\n"));
    EXPECT_EQ(station.UpdatedAndRuns(), row.exit == ExitCode::Done) << station.run.Out();
    EXPECT_LE(station.platform.MonotonicNow(), row.longest);
  }
#ifndef _WIN32
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
#endif
}

}  // namespace
}  // namespace tavo::tool
