// The host tool on the distribution's libusb and libftdi1, which run unchanged, over usbfs as Linux
// has it: drivers that hold a device, hubs, device numbers, udev events, and what a cable that is
// pulled looks like from there. In real time: each test is one for ctest, which overlaps them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libusb.h>
#include <linux/usbdevice_fs.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "platform/d2xx.h"
#include "platform/libusb_api.h"
#include "platform/platform.h"
#include "simulator/cdc_function.h"
#include "simulator/ftdi_adapter.h"
#include "tests/tools/command_run.h"
#include "tests/usbfs/mock_machine.h"

#if defined(__SANITIZE_ADDRESS__)
// What umockdev-wrapper has the process load comes before the sanitizer's library, which minds.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "verify_asan_link_order=0"; }
#endif

namespace tavo::tool {
namespace {

using tavosim::SimTime;
using test::MockMachine;

enum class Kind { Usb, Ftdi };

// Nothing is tested here that takes long; only the library's own pauses remain.
tavosim::DeviceOptions Prompt() {
  tavosim::DeviceOptions options = tavosim::OptionsFor(*tavosim::FindFamily("plain"));
  options.answerDelay = options.blockWriteTime = options.eraseTime = SimTime(100);
  return options;
}

std::vector<tavosim::Fault> Parsed(const std::string& fault) {
  if (fault.empty()) return {};
  return {tavosim::ParseFault(fault).fault.value()};
}

// One device at a port of a machine, and the tool there.
class Bench {
 public:
  explicit Bench(Kind kind, const std::string& fault = {}, const tavosim::FtdiOptions& adapter = {})
      : m_kind(kind),
        m_device(Prompt(), Parsed(fault)),
        m_function(m_device),
        m_adapter(m_device, {}, adapter) {
    m_firmware = tavosim::BuildFirmware(tavosim::RecipeFor(m_device.Options().family));
    run.Write("firmware.hex", tavosim::HexText(m_firmware));
  }

  void PlugIn(const std::string& name, const std::string& driver = {}) {
    tavosim::UsbDevice& front =
        m_kind == Kind::Usb ? static_cast<tavosim::UsbDevice&>(m_function) : m_adapter;
    machine.PlugIn(name, front, driver);
  }
  void PlugInAgain() {
    machine.With([this](SimTime now) { m_device.Unplug(now, SimTime(0)); });
  }

  ExitCode Update(const std::string& target) {
    return run("update @firmware.hex --log @tool.log " + target);
  }
  bool UpdatedAndRuns() {
    bool isSo = false;
    machine.With([&](SimTime now) {
      const auto& flash = m_device.ApplicationFlash().Bytes();
      isSo = std::ranges::equal(flash, m_firmware.data) &&
             m_device.State(now) == tavosim::DeviceState::Application;
    });
    return isSo && run.LastLine() == "The device runs the new firmware, verified.";
  }

 private:
  Kind m_kind;
  tavosim::Device m_device;
  tavosim::CdcFunction m_function;
  tavosim::FtdiAdapter m_adapter;
  tavosim::Firmware m_firmware;
  test::TemporaryFolder m_folder;
  const std::unique_ptr<D2xx> m_adapters = MakeSystemD2xx();

 public:
  CommandRun run{SystemPlatform(), SystemLibUsb(), *m_adapters, m_folder.Path()};
  MockMachine machine;
};

// --- updates ---

struct Place {
  const char* name;
  Kind kind;
  const char* port;
  const char* driver;
  const char* target;
  std::vector<unsigned> detached;
};

// The driver of a serial function lets go of both interfaces when it loses one.
const Place kPlaces[] = {
    {"OverUsb", Kind::Usb, "1-4", "", "--usb 4", {}},
    {"ThreeHubsDeep", Kind::Usb, "1-1.2.3.4", "", "--usb 1-2-3-4", {}},
    {"ADriverHoldsTheDevice", Kind::Usb, "1-2", "cdc_acm", "--usb 2", {0}},
    {"OverFtdi", Kind::Ftdi, "1-3", "", "--ftdi TAVO0001", {}},
    {"ADriverHoldsTheAdapter", Kind::Ftdi, "1-1.4", "ftdi_sio", "--ftdi TAVO0001", {0}},
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

// The number of threads of this process.
std::ptrdiff_t Threads() {
  return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/task"),
                               std::filesystem::directory_iterator());
}

constexpr const char* kPort = "1-4";

class UsbfsUpdate : public testing::TestWithParam<Place> {};

TEST_P(UsbfsUpdate, ListedThenUpdated) {
  const Place& place = GetParam();
  Bench bench(place.kind);
  bench.PlugIn(place.port, place.driver);
  const std::ptrdiff_t threads = Threads();
  EXPECT_EQ(bench.run("list"), ExitCode::Done);
  EXPECT_TRUE(bench.run.Out().starts_with(place.target)) << bench.run.Out();
  EXPECT_FALSE(bench.run.Says("cannot be used")) << bench.run.Out();
  EXPECT_EQ(bench.machine.Detached(place.port), std::vector<unsigned>{});

  const std::vector<unsigned> held = bench.machine.HeldByDriver(place.port);
  EXPECT_EQ(bench.Update(place.target), ExitCode::Done) << bench.run.Out() << bench.run.Err();
  EXPECT_TRUE(bench.UpdatedAndRuns());
  EXPECT_EQ(bench.machine.Detached(place.port), place.detached);
  EXPECT_EQ(bench.machine.HeldByDriver(place.port), held) << "given back";
  EXPECT_EQ(Threads(), threads) << "libusb's has ended with its last context";
}

// An adapter with several channels is one adapter for each.
struct ChannelCase {
  const char* name;
  unsigned channels;
  unsigned deviceChannel;
};
const ChannelCase kChannelCases[] = {{"AOfTwo", 2, 0}, {"BOfTwo", 2, 1}, {"DOfFour", 4, 3}};

void PrintTo(const ChannelCase& one, std::ostream* out) { *out << one.name; }

class UsbfsChannels : public testing::TestWithParam<ChannelCase> {};

TEST_P(UsbfsChannels, AreListedAndUpdatedOverOneByOne) {
  const auto& [name, channels, deviceChannel] = GetParam();
  Bench bench(Kind::Ftdi, {}, {.channels = channels, .deviceChannel = deviceChannel});
  bench.PlugIn(kPort);
  EXPECT_EQ(bench.run("list"), ExitCode::Done);
  for (unsigned channel = 0; channel < channels; ++channel) {
    const char letter = static_cast<char>('A' + channel);
    const std::string line =
        std::string("--ftdi TAVO0001") + letter + "  FT232R USB UART " + letter;
    EXPECT_TRUE(bench.run.Says(line)) << bench.run.Out();
  }
  const char letter = static_cast<char>('A' + deviceChannel);
  EXPECT_EQ(bench.Update(std::string("--ftdi TAVO0001") + letter), ExitCode::Done)
      << bench.run.Out() << bench.run.Err();
  EXPECT_TRUE(bench.UpdatedAndRuns());
}

INSTANTIATE_TEST_SUITE_P(Usbfs, UsbfsChannels, testing::ValuesIn(kChannelCases),
                         [](const auto& row) { return row.param.name; });

TEST(UsbfsDrivers, AreBackAfterAFailedUpdateToo) {
  for (const Place& place : kPlaces) {
    if (place.detached.empty()) continue;
    SCOPED_TRACE(place.name);
    Bench bench(place.kind, "empty:id=0x132:1");  // an application size of 0
    bench.PlugIn(place.port, place.driver);
    const std::vector<unsigned> held = bench.machine.HeldByDriver(place.port);
    EXPECT_NE(held, std::vector<unsigned>{});
    EXPECT_NE(bench.Update(place.target), ExitCode::Done);
    EXPECT_EQ(bench.machine.Detached(place.port), place.detached);
    EXPECT_EQ(bench.machine.HeldByDriver(place.port), held);
  }
}

INSTANTIATE_TEST_SUITE_P(Usbfs, UsbfsUpdate, testing::ValuesIn(kPlaces),
                         [](const auto& row) { return row.param.name; });

// --- a cable that is pulled ---

const Place kLosses[] = {
    {"OfADevice", Kind::Usb, kPort, "cdc_acm", "--usb 4", {}},
    {"OfAnAdapter", Kind::Ftdi, kPort, "ftdi_sio", "--ftdi TAVO0001", {}},
};

class UsbfsUnplug : public UsbfsUpdate {};

TEST_P(UsbfsUnplug, InMidWriteIsToldAndTheRecommendedCommandEndsIt) {
  const Place& loss = GetParam();
  Bench bench(loss.kind, "unplug:id=0x134:9");
  bench.PlugIn(kPort, loss.driver);
  const std::string node = bench.machine.NodePath(kPort);
  EXPECT_EQ(bench.Update(loss.target), ExitCode::FailedInBootloader);
  EXPECT_TRUE(bench.run.Err().starts_with("firmware-updater: flash-writing: ")) << bench.run.Err();
  const std::string recommended = bench.run.Recommended();
  EXPECT_EQ(bench.run("list"), ExitCode::NoDevice) << bench.run.Out();

  bench.PlugInAgain();
  bench.machine.AwaitDevice(kPort);
  EXPECT_NE(bench.machine.NodePath(kPort), node);
  EXPECT_EQ(bench.run(recommended + " --log @tool.log"), ExitCode::Done)
      << recommended << bench.run.Out() << bench.run.Err();
  EXPECT_TRUE(bench.UpdatedAndRuns());
}

INSTANTIATE_TEST_SUITE_P(Usbfs, UsbfsUnplug, testing::ValuesIn(kLosses),
                         [](const auto& row) { return row.param.name; });

// As a device does that leaves the bus when its bootloader takes over.
TEST(UsbfsReplug, AnUpdateFollowsADeviceThatComesBackUnderAnotherNumber) {
  Bench bench(Kind::Usb, "unplug:id=0x100:4:1500ms");
  bench.PlugIn(kPort, "cdc_acm");
  const std::string node = bench.machine.NodePath(kPort);
  EXPECT_EQ(bench.Update("--usb 4"), ExitCode::Done) << bench.run.Out() << bench.run.Err();
  EXPECT_TRUE(bench.UpdatedAndRuns());
  EXPECT_NE(bench.machine.NodePath(kPort), node);
}

// --- a device that cannot be used ---

// The user of the files is another one in this thread, as long as it lives. Without root's rights
// nothing is needed.
class Nobody {
 public:
  Nobody() : m_before(setfsuid(kNobody)) {}
  Nobody(const Nobody&) = delete;
  ~Nobody() { setfsuid(static_cast<uid_t>(m_before)); }

 private:
  static constexpr uid_t kNobody = 65534;
  int m_before;
};

TEST(UsbfsSurvey, ADeviceThatMayNotBeOpenedIsListedWithARule) {
  for (const Kind kind : {Kind::Usb, Kind::Ftdi}) {
    Bench bench(kind);
    bench.PlugIn(kPort);
    const std::string node = bench.machine.NodePath(kPort);
    const auto setMode = [&bench](const std::string& path, std::filesystem::perms mode) {
      std::filesystem::permissions(bench.machine.Root() + path, mode);
    };
    setMode("", std::filesystem::perms::all);  // sockets of udev are made there
    setMode("/ioctl" + node, std::filesystem::perms::all);
    setMode(node, std::filesystem::perms::none);
    const Nobody user;
    EXPECT_EQ(bench.run("list"), ExitCode::NoDevice);
    EXPECT_TRUE(bench.run.Says("(no-permission)")) << bench.run.Out();
    EXPECT_TRUE(bench.run.Says("hint: put the line SUBSYSTEM==\"usb\""));
  }
}

TEST(UsbfsSurvey, ADeviceThatAnotherProgramHoldsIsListedAsInUse) {
  for (const Kind kind : {Kind::Usb, Kind::Ftdi}) {
    Bench bench(kind);
    bench.PlugIn(kPort);
    const int other = open(bench.machine.NodePath(kPort).c_str(), O_RDWR | O_CLOEXEC);
    unsigned dataInterface = kind == Kind::Usb ? 1 : 0;
    ASSERT_EQ(ioctl(other, USBDEVFS_CLAIMINTERFACE, &dataInterface), 0);
    EXPECT_EQ(bench.run("list"), ExitCode::NoDevice);
    EXPECT_TRUE(bench.run.Says("(in-use)")) << bench.run.Out();
    EXPECT_EQ(bench.Update(kind == Kind::Usb ? "--usb 4" : "--ftdi TAVO0001"), ExitCode::NoDevice);

    close(other);
    EXPECT_EQ(bench.run("list"), ExitCode::Done);
    EXPECT_FALSE(bench.run.Says("cannot be used")) << bench.run.Out();
  }
}

// --- the mock kernel itself ---

// Rules of Linux that the tests above rest on.
TEST(UsbfsNode, ADriverKeepsItsInterfacesUntilOneIsTakenFromIt) {
  Bench bench(Kind::Usb);
  bench.PlugIn(kPort, "cdc_acm");
  libusb_context* context = nullptr;
  ASSERT_EQ(libusb_init(&context), 0);
  libusb_device_handle* const handle = libusb_open_device_with_vid_pid(context, 0x03EB, 0x2404);
  ASSERT_NE(handle, nullptr);
  for (const int interface : {0, 1}) {
    EXPECT_EQ(libusb_kernel_driver_active(handle, interface), 1);
    EXPECT_EQ(libusb_claim_interface(handle, interface), LIBUSB_ERROR_BUSY);
  }
  EXPECT_EQ(libusb_claim_interface(handle, 2), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(libusb_set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
  // What is not claimed is claimed by a transfer, if it can be.
  int transferred = 0;
  unsigned char byte = 0;
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x02, &byte, 1, &transferred, 100), LIBUSB_ERROR_IO);

  EXPECT_EQ(libusb_set_auto_detach_kernel_driver(handle, 1), 0);
  EXPECT_EQ(libusb_claim_interface(handle, 1), 0);
  EXPECT_EQ(libusb_kernel_driver_active(handle, 0), 0);
  EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
  EXPECT_EQ(libusb_bulk_transfer(handle, 0x81, &byte, 1, &transferred, 20), LIBUSB_ERROR_TIMEOUT);
  libusb_close(handle);
  libusb_exit(context);
}

}  // namespace
}  // namespace tavo::tool
